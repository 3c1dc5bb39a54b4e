#include "Terminal.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>

namespace KorvaneLog {

namespace {

volatile std::sig_atomic_t interruptRaised = 0;

extern "C" void raiseInterrupt(int) {
    interruptRaised = 1;
}

// Carriage return and "erase line": the cursor goes back to the start of an empty line.
constexpr const char* eraseLine = "\r\x1b[2K";

}  // namespace

bool isTerminal(int fd) {
    return isatty(fd) == 1;
}

StatusLine::StatusLine(std::ostream& out, int fd) : out(out), live(isTerminal(fd)) {}

StatusLine::~StatusLine() {
    clear();
}

void StatusLine::show(const std::string& text) {
    if (live) {
        current = text;
        out << eraseLine << current << std::flush;
    }
}

void StatusLine::printAbove(const std::string& line) {
    out << (live && !current.empty() ? eraseLine : "") << line << '\n' << std::flush;
    current.clear();
}

void StatusLine::clear() {
    if (live && !current.empty()) {
        out << eraseLine << std::flush;
        current.clear();
    }
}

ProgressTicker::ProgressTicker(std::function<std::string()> describe)
    : line(std::cerr, STDERR_FILENO), describe(std::move(describe)) {
    if (!line.enabled()) {
        return;
    }
    thread = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex);
        // The first line waits a moment: a call that ends at once leaves no flicker behind.
        while (!wake.wait_for(lock, std::chrono::milliseconds(250), [this] { return done; })) {
            line.show(this->describe());
        }
        line.clear();
    });
}

ProgressTicker::~ProgressTicker() {
    if (!thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    wake.notify_one();
    thread.join();
}

InterruptGuard::InterruptGuard()
    : previousInterrupt(std::signal(SIGINT, raiseInterrupt)),
      previousTerminate(std::signal(SIGTERM, raiseInterrupt)) {
    interruptRaised = 0;
}

InterruptGuard::~InterruptGuard() {
    std::signal(SIGINT, previousInterrupt);
    std::signal(SIGTERM, previousTerminate);
}

bool InterruptGuard::raised() {
    return interruptRaised != 0;
}

}  // namespace KorvaneLog
