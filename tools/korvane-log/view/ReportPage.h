#pragma once

#include <string>

namespace KorvaneLog::View {

// The page as one HTML file that needs nothing else: its scripts and style written into it,
// `dataJson` (LogView::reportJson) in a data block that the page reads instead of asking a
// server, and a Content-Security-Policy that lets only those scripts and that style run, by their
// SHA-256, and reach nothing outside the file.
std::string reportPage(const std::string& dataJson);

}  // namespace KorvaneLog::View
