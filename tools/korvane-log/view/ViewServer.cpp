#include "ViewServer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>

#include "LogView.h"
#include "PageAssets.h"

// The paths it answers:
//   /                          the page (index.html); /NAME for each other file of the page
//   /api/live                  what changed: version, state, progress of the first count
//   /api/summary               identity, sources, gaps, bookmarks, metadata, resources
//   /api/bins?from=&to=&bins=  counts and bytes per source over [from, to) in ms
//   /api/entries?at=&source=&count=   entries around a time, of one source or all
//   /api/payload?id=           an entry's payload, as a download
//   /api/resource?name=        a resource, as a download
//   /api/thumbnail             the thumbnail
namespace KorvaneLog::View {

namespace {

constexpr const char* jsonType = "application/json";
constexpr std::size_t mostBins = 8192;
constexpr std::size_t mostEntries = 1000;

// What every answer says: no script but the page's own, nothing from elsewhere, and no
// guessing at types, so that a payload shown or downloaded can never become a page.
const httplib::Headers commonHeaders{
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; "
     "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

// True for "localhost" and for the literal addresses of this machine's loopback: 127.x.y.z
// written as four numbers, and ::1. A name that merely begins with "127." is none of them.
bool isLoopback(const std::string& address) {
    in_addr ipv4{};
    in6_addr ipv6{};
    if (inet_pton(AF_INET, address.c_str(), &ipv4) == 1) {
        return (ntohl(ipv4.s_addr) >> 24) == 127;
    }
    return address == "localhost" ||
           (inet_pton(AF_INET6, address.c_str(), &ipv6) == 1 && IN6_IS_ADDR_LOOPBACK(&ipv6));
}

// The name or address in a Host header, without its port and brackets.
std::string hostName(const std::string& header) {
    if (!header.empty() && header.front() == '[') {
        const std::size_t close = header.find(']');
        return close == std::string::npos ? header : header.substr(1, close - 1);
    }
    return header.substr(0, header.find(':'));
}

// `text` as a whole number, or nothing.
template <typename Number>
std::optional<Number> parsed(const std::string& text) {
    Number value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || text.empty()) {
        return std::nullopt;
    }
    return value;
}

void refuse(httplib::Response& response, int status, const std::string& reason) {
    response.status = status;
    response.set_content(reason + "\n", "text/plain; charset=utf-8");
}

// A name for a downloaded file that no header can be bent by: the characters that are safe
// everywhere, and the rest replaced.
std::string safeFileName(const std::string& name) {
    std::string safe;
    for (const char character : name) {
        const bool plain = (character >= 'a' && character <= 'z') ||
                           (character >= 'A' && character <= 'Z') ||
                           (character >= '0' && character <= '9') || character == '.' ||
                           character == '-' || character == '_';
        safe += plain ? character : '_';
    }
    safe = safe.substr(0, 100);
    return safe.empty() || safe[0] == '.' ? "resource" + safe : safe;
}

void sendBytes(httplib::Response& response, ByteArray bytes, const std::string& type,
               const std::string& fileName) {
    // The payload is handed to the connection as it is, not copied into a string.
    auto held = std::make_shared<ByteArray>(std::move(bytes));
    response.set_content_provider(
        held->size(), type,
        [held](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            return sink.write(reinterpret_cast<const char*>(held->data()) + offset, length);
        });
    if (!fileName.empty()) {
        response.set_header("Content-Disposition",
                            "attachment; filename=\"" + safeFileName(fileName) + "\"");
    }
}

}  // namespace

ViewServer::ViewServer(const LogView& view, std::string address)
    : view(view), address(std::move(address)), server(std::make_unique<httplib::Server>()) {
    server->set_default_headers(commonHeaders);
    // The library's default also sets SO_REUSEPORT, which would let a second server share the
    // port and take some of the page's requests: a port in use is refused instead.
    server->set_socket_options([](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    // The page asks often and briefly; a short keep-alive lets Ctrl-C end the server at once.
    server->set_keep_alive_timeout(1);
    server->set_payload_max_length(0);
    server->set_pre_routing_handler([this](const httplib::Request& request,
                                           httplib::Response& response) {
        if (request.method != "GET") {
            response.set_header("Allow", "GET");
            refuse(response, 405, "only GET is answered here");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (isLoopback(this->address)) {
            const std::string host = hostName(request.get_header_value("Host"));
            if (!isLoopback(host)) {
                refuse(response, 403, "this server answers requests for its loopback address only");
                return httplib::Server::HandlerResponse::Handled;
            }
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server->set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            refuse(response, response.status, response.status == 404 ? "not found" : "failed");
        }
    });
    server->set_exception_handler(
        [](const httplib::Request&, httplib::Response& response, std::exception_ptr failure) {
            std::string reason = "failed";
            try {
                std::rethrow_exception(failure);
            } catch (const std::exception& error) {
                reason = error.what();
            } catch (...) {
            }
            refuse(response, 500, reason);
        });
    addRoutes();
}

ViewServer::~ViewServer() = default;

void ViewServer::addRoutes() {
    for (const PageAsset& asset : pageAssets()) {
        const std::string path = asset.name == "index.html" ? "/" : "/" + std::string(asset.name);
        server->Get(path, [&asset](const httplib::Request&, httplib::Response& response) {
            response.set_content(asset.body.data(), asset.body.size(), std::string(asset.type));
        });
    }
    server->Get("/api/live", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(view.liveJson(), jsonType);
    });
    server->Get("/api/summary", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(view.summaryJson(), jsonType);
    });
    server->Get("/api/bins", [this](const httplib::Request& request, httplib::Response& response) {
        const auto from = parsed<std::int64_t>(request.get_param_value("from"));
        const auto to = parsed<std::int64_t>(request.get_param_value("to"));
        const auto bins = parsed<std::size_t>(request.get_param_value("bins"));
        if (!from || !to || !bins || *to <= *from || *bins == 0) {
            return refuse(response, 400, "from, to and bins are whole numbers, to above from");
        }
        response.set_content(view.binsJson(*from, *to, std::min(*bins, mostBins)), jsonType);
    });
    server->Get("/api/entries",
                [this](const httplib::Request& request, httplib::Response& response) {
                    const auto at = parsed<std::int64_t>(request.get_param_value("at"));
                    const auto count = request.has_param("count")
                                           ? parsed<std::size_t>(request.get_param_value("count"))
                                           : std::optional<std::size_t>(24);
                    std::optional<std::int8_t> source;
                    if (request.has_param("source")) {
                        const auto id = parsed<int>(request.get_param_value("source"));
                        if (!id || *id < std::numeric_limits<std::int8_t>::min() ||
                            *id > std::numeric_limits<std::int8_t>::max()) {
                            return refuse(response, 400, "source is a source id");
                        }
                        source = static_cast<std::int8_t>(*id);
                    }
                    if (!at || !count) {
                        return refuse(response, 400, "at and count are whole numbers");
                    }
                    response.set_content(
                        view.entriesJson(source, *at, std::min(*count, mostEntries)), jsonType);
                });
    server->Get("/api/payload",
                [this](const httplib::Request& request, httplib::Response& response) {
                    const auto id = parsed<std::int32_t>(request.get_param_value("id"));
                    std::optional<ByteArray> bytes = id ? view.payload(*id) : std::nullopt;
                    if (!bytes) {
                        return refuse(response, 404, "no such entry");
                    }
                    sendBytes(response, std::move(*bytes), "application/octet-stream",
                              "entry-" + std::to_string(*id) + ".bin");
                });
    server->Get("/api/resource",
                [this](const httplib::Request& request, httplib::Response& response) {
                    const std::string name = request.get_param_value("name");
                    std::optional<ByteArray> bytes = view.resource(name);
                    if (!request.has_param("name") || !bytes) {
                        return refuse(response, 404, "no such resource");
                    }
                    sendBytes(response, std::move(*bytes), "application/octet-stream", name);
                });
    server->Get("/api/thumbnail", [this](const httplib::Request&, httplib::Response& response) {
        std::optional<ByteArray> bytes = view.thumbnail();
        if (!bytes) {
            return refuse(response, 404, "no thumbnail");
        }
        // Only an image's own type is ever named; anything else is bytes to download.
        const std::string type = imageTypeOf(*bytes);
        sendBytes(response, std::move(*bytes), type.empty() ? "application/octet-stream" : type,
                  type.empty() ? "thumbnail.bin" : "");
    });
}

int ViewServer::bind(int wanted) {
    port = wanted == 0                             ? server->bind_to_any_port(address)
           : server->bind_to_port(address, wanted) ? wanted
                                                   : -1;
    return port;
}

void ViewServer::listen() {
    if (port > 0) {
        server->listen_after_bind();
    }
}

void ViewServer::stop() {
    server->stop();
}

std::string ViewServer::url() const {
    // Listening on every address includes the loopback one, which a browser here can open.
    const std::string host = address == "0.0.0.0" ? "127.0.0.1" : address == "::" ? "::1" : address;
    const bool ipv6 = host.find(':') != std::string::npos;
    return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + "/";
}

}  // namespace KorvaneLog::View
