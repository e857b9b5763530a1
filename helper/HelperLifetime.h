#pragma once

class VelChiDesktopHelper;

/**
 * What threads that outlive their call need to know of the process-wide instance. The state behind these
 * functions has no destructor, so it may be asked while the process exits.
 */
namespace helper_lifetime {

/**
 * The constructor and the destructor of an instance report here, first thing. end() turns its later visitors
 * away and gives those inside 100 ms to leave: one that waits for its peer longer is left behind.
 */
void begin(VelChiDesktopHelper* instance);
void end(const VelChiDesktopHelper* instance);

/**
 * What a thread makes before it touches the instance, keeps meanwhile, and makes anew after every wait that a
 * peer can prolong: false when the destruction has begun, and nothing of the instance may be touched. Takes
 * no lock and does not wait.
 */
class Visit {
  public:
    explicit Visit(const VelChiDesktopHelper* instance);
    ~Visit();
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    explicit operator bool() const { return mIsAllowed; }

  private:
    bool mIsAllowed;
};

}  // namespace helper_lifetime
