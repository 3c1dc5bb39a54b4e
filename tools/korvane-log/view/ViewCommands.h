#pragma once

#include <string>

// The verbs `view` and `report` of korvane-log, wired up in main.cpp like the others.
namespace KorvaneLog {

// `view` serves a page that shows one log file until Ctrl-C.
struct ViewOptions {
    std::string file;
    int port = 0;  // 0: a free port
    std::string bind = "127.0.0.1";
    bool noOpen = false;
};
int runView(const ViewOptions& options);

// `report` writes the page of a log file, with its summary, into one self-contained HTML file.
struct ReportOptions {
    std::string file;
    std::string output;
};
int runReport(const ReportOptions& options);

}  // namespace KorvaneLog
