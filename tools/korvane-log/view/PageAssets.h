#pragma once

#include <string_view>
#include <vector>

// The files of the page, built into the tool from tools/korvane-log/view/page/ by
// EmbedPageAssets.cmake, so that `view` and `report` need nothing from the disk or the network.
namespace KorvaneLog::View {

struct PageAsset {
    std::string_view name;    // "index.html", "view.js", ...
    std::string_view type;    // its media type, with the charset for text
    std::string_view body;    // its bytes
    std::string_view sha256;  // the SHA-256 of `body` in hex, for a Content-Security-Policy
};

// Every file of the page, in the order of the build's list.
const std::vector<PageAsset>& pageAssets();

// The file named `name`, or null.
const PageAsset* findPageAsset(std::string_view name);

}  // namespace KorvaneLog::View
