// view and report: a log file as a web page, served or written into one file.

#include "ViewCommands.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>

#include "../Format.h"
#include "../LogFiles.h"
#include "../Terminal.h"
#include "LogView.h"
#include "ReportPage.h"
#include "ViewServer.h"

extern char** environ;

namespace KorvaneLog {

namespace {

// A report keeps this many cells per source: the finest zoom it allows over the recording.
constexpr std::size_t reportCellsPerSource = 8192;

bool displayPresent() {
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

// Asks the desktop to open `url` in the browser, without waiting for it; the page's address is
// printed in any case, so a failure here is left unsaid.
void openBrowser(const std::string& url) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char program[] = "xdg-open";
    std::string address = url;
    char* argv[] = {program, address.data(), nullptr};
    pid_t child = 0;
    if (posix_spawnp(&child, program, &actions, nullptr, argv, environ) == 0) {
        std::thread([child] { waitpid(child, nullptr, 0); }).detach();
    }
    posix_spawn_file_actions_destroy(&actions);
}

void writeNewFile(const fs::path& output, const std::string& text) {
    const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw ToolError(output, errno == EEXIST ? "exists already; will not overwrite it"
                                                : std::strerror(errno));
    }
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = write(fd, text.data() + written, text.size() - written);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            const std::string reason = std::strerror(errno);
            close(fd);
            unlink(output.c_str());
            throw ToolError(output, reason);
        }
        written += static_cast<std::size_t>(result);
    }
    if (close(fd) != 0) {
        const std::string reason = std::strerror(errno);
        unlink(output.c_str());
        throw ToolError(output, reason);
    }
}

}  // namespace

int runView(const ViewOptions& options) {
    // A browser that goes away in the middle of an answer must not end the server.
    std::signal(SIGPIPE, SIG_IGN);
    View::LogView view(options.file, {});
    View::ViewServer server(view, options.bind);
    errno = 0;
    if (server.bind(options.port) < 0) {
        const std::string reason = errno != 0 ? std::strerror(errno) : "cannot listen there";
        throw ToolError(options.bind + " port " + std::to_string(options.port),
                        "cannot listen: " + reason);
    }
    InterruptGuard interrupt;
    std::thread serving([&server] { server.listen(); });
    std::cout << server.url() << '\n'
              << "Showing " << options.file << " there; Ctrl-C stops.\n"
              << std::flush;
    if (!options.noOpen && displayPresent()) {
        openBrowser(server.url());
    }
    while (!InterruptGuard::raised()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    server.stop();
    serving.join();
    return 0;
}

int runReport(const ReportOptions& options) {
    requireAbsent(options.output);
    View::LogView::Options once;
    once.follow = false;
    View::LogView view(options.file, once);
    view.waitUntilCounted();
    const std::string html = View::reportPage(view.reportJson(reportCellsPerSource));
    writeNewFile(options.output, html);
    std::cout << options.output << " (" << humanSize(html.size()) << ")\n";
    return 0;
}

}  // namespace KorvaneLog
