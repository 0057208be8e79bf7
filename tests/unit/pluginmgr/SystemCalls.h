#pragma once

#include <ctime>
#include <functional>

/// The calls with which the manager makes processes and threads and waits. Programs that compile in
/// SystemCalls.cpp have them under the test's control; until it asks for something they do what the
/// C library's do.
namespace ktr::test::system {

/// Puts all back as it was, for the calling thread.
void reset();
/// While true, fork makes no process on the calling thread.
void failForks(bool failing);
/// While true, no thread can be made by the calling thread.
void failThreads(bool failing);
/// Called inside every fork of the calling thread, before the process is made.
void onFork(std::function<void()> hook);
/// Takes the place of nanosleep on the calling thread: gets the time asked for, which it may
/// replace by what remains of it, and returns false if a signal interrupted it.
void replaceSleep(std::function<bool(std::timespec&)> sleep);

} // namespace ktr::test::system
