#pragma once

#include <memory>
#include <string>

namespace httplib {
class Server;
}

// The web server of `view`: its page and the data the page asks for, nothing else.
namespace KorvaneLog::View {

class LogView;

// Serves the page and its data for one `LogView`, which must outlive it. Answers GET requests
// for its own paths only: the page's files and /api/... (see ViewServer.cpp); any other path is
// 404 and any other method 405. While it listens on a loopback address it answers only requests
// whose Host names a loopback address, so that no other site can reach it through a name that
// resolves to this machine. Every answer carries a Content-Security-Policy that lets the page
// run its own scripts only.
class ViewServer {
public:
    ViewServer(const LogView& view, std::string address);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    // Binds to `port` of the address (0: a free port) and returns the port, or -1 when it
    // cannot be bound.
    int bind(int port);
    // Answers requests until `stop`; returns at once when `bind` failed.
    void listen();
    // Makes `listen` return; safe to call from any thread.
    void stop();

    // The page's address: "http://127.0.0.1:PORT/", "http://[::1]:PORT/".
    std::string url() const;

private:
    void addRoutes();

    const LogView& view;
    std::string address;
    int port = -1;
    std::unique_ptr<httplib::Server> server;
};

}  // namespace KorvaneLog::View
