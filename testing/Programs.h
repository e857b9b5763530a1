#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"

// Link the target program_kit, and let the test depend on the programs that it starts.

/** Where a program of the simulator is. */
std::string programPath(const std::string& name);

/**
 * Starts a program: one of the simulator by its name, any other by its path. It finds the bus of the address.
 */
std::unique_ptr<vel::sim::ChildProcess> startProgram(std::vector<std::string> command,
                                                     const std::string& busAddress = "");

/**
 * Starts the desktop service, which prints what it does, and waits until it is ready. Throws
 * std::runtime_error when it never is.
 */
std::unique_ptr<vel::sim::ChildProcess> startService(const std::string& busAddress);
