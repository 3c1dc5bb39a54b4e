#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

// What the tool does differently when a person watches: lines redrawn in place, and Ctrl-C.
namespace KorvaneLog {

// True when `fd` is a terminal.
bool isTerminal(int fd);

// One line at the bottom of a terminal, redrawn in place. Does nothing when `fd` is no terminal,
// so that redirected output holds only the lines that were printed for good.
class StatusLine {
public:
    StatusLine(std::ostream& out, int fd);
    ~StatusLine();

    bool enabled() const { return live; }
    // Replaces the line with `text`.
    void show(const std::string& text);
    // Prints `line` for good in place of the status line, which is gone until the next `show`.
    void printAbove(const std::string& line);
    // Removes the line.
    void clear();

private:
    std::ostream& out;
    bool live;
    std::string current;
};

// Shows a progress line on stderr, refreshed a few times a second on a thread of its own, while
// a call that gives no progress of its own runs. Silent when stderr is no terminal.
class ProgressTicker {
public:
    explicit ProgressTicker(std::function<std::string()> describe);
    ~ProgressTicker();
    ProgressTicker(const ProgressTicker&) = delete;
    ProgressTicker& operator=(const ProgressTicker&) = delete;

private:
    StatusLine line;
    std::function<std::string()> describe;
    std::mutex mutex;
    std::condition_variable wake;
    bool done = false;
    std::thread thread;
};

// While it lives, Ctrl-C (and SIGTERM) raise a flag instead of ending the process, so that a
// command can stop its work and leave cleanly. The previous handlers come back at its end.
class InterruptGuard {
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

    static bool raised();

private:
    using Handler = void (*)(int);
    Handler previousInterrupt;
    Handler previousTerminate;
};

}  // namespace KorvaneLog
