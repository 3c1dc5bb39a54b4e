#include "ReportPage.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "../Format.h"
#include "PageAssets.h"

namespace KorvaneLog::View {

namespace {

// Where index.html takes the report's policy and data; in the served page they stay comments.
constexpr std::string_view policyMark = "<!-- report policy -->";
constexpr std::string_view dataMark = "<!-- report data -->";
constexpr std::string_view scriptOpen = "<script src=\"";
constexpr std::string_view scriptClose = "\"></script>";
constexpr std::string_view styleOpen = "<link rel=\"stylesheet\" href=\"";
constexpr std::string_view styleClose = "\">";

std::string lowered(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

// The CSP source of an inline block: 'sha256-' and the base64 of its digest.
std::string hashSource(std::string_view hexDigest) {
    ByteArray digest;
    for (std::size_t i = 0; i + 1 < hexDigest.size(); i += 2) {
        digest.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(hexDigest.substr(i, 2)), nullptr, 16)));
    }
    return "'sha256-" + base64Encode(digest) + "'";
}

const PageAsset& asset(std::string_view name) {
    const PageAsset* found = findPageAsset(name);
    if (found == nullptr) {
        throw std::logic_error("the page names a file it does not have: " + std::string(name));
    }
    return *found;
}

// Replaces each `open`NAME`close` of `html` with the file NAME inside `tag`, and adds the file's
// hash to `hashes`. A file that could end its own block early is refused.
void inlineFiles(std::string& html, std::string_view open, std::string_view close,
                 const std::string& tag, std::string& hashes) {
    for (std::size_t at = html.find(open); at != std::string::npos; at = html.find(open, at)) {
        const std::size_t nameStart = at + open.size();
        const std::size_t nameEnd = html.find(close, nameStart);
        if (nameEnd == std::string::npos) {
            throw std::logic_error("index.html: an unfinished " + tag + " element");
        }
        const PageAsset& file =
            asset(std::string_view(html).substr(nameStart, nameEnd - nameStart));
        if (lowered(file.body).find("</" + tag) != std::string::npos) {
            throw std::logic_error(std::string(file.name) + " holds </" + tag);
        }
        const std::string block = "<" + tag + ">" + std::string(file.body) + "</" + tag + ">";
        html.replace(at, nameEnd + close.size() - at, block);
        at += block.size();
        hashes += " " + hashSource(file.sha256);
    }
}

void replaceMark(std::string& html, std::string_view mark, const std::string& with) {
    const std::size_t at = html.find(mark);
    if (at == std::string::npos) {
        throw std::logic_error("index.html lacks " + std::string(mark));
    }
    html.replace(at, mark.size(), with);
}

}  // namespace

std::string reportPage(const std::string& dataJson) {
    std::string html(asset("index.html").body);
    std::string scripts;
    std::string styles;
    inlineFiles(html, scriptOpen, scriptClose, "script", scripts);
    inlineFiles(html, styleOpen, styleClose, "style", styles);
    // '<' occurs only inside the JSON's strings, where \u003c means the same: no text of the
    // file can close the data block.
    std::string data;
    data.reserve(dataJson.size());
    for (const char character : dataJson) {
        data += character == '<' ? std::string("\\u003c") : std::string(1, character);
    }
    replaceMark(html, dataMark,
                "<script id=\"report-data\" type=\"application/json\">" + data + "</script>");
    replaceMark(html, policyMark,
                "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                "script-src" +
                    scripts + "; style-src" + styles +
                    "; img-src data: blob:; base-uri 'none'; form-action 'none'\">");
    return html;
}

}  // namespace KorvaneLog::View
