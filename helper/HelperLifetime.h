#pragma once

class VelChiDesktopHelper;

// What threads that outlive their call need to know of the process-wide instance. The state behind these
// functions has no destructor, so it may be asked while the process exits.
namespace helper_lifetime {

// The constructor and the destructor of the instance report here, first thing.
void begin(VelChiDesktopHelper* instance);
void end();

// True from the start of the instance's destruction on: nothing of it may be touched any more.
bool isOver();

// The instance, also while its constructor still runs, when a peer's command can already arrive and
// VelChiDesktopHelper::getInstance() would wait for that constructor. Built when it does not exist yet.
VelChiDesktopHelper* instance();

}  // namespace helper_lifetime
