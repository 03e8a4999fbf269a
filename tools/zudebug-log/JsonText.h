// Text for JSON and HTML documents: strings escaped, bytes that are not UTF-8 replaced.
#pragma once

#include <string>
#include <string_view>

namespace zulog {

// Appends `text` as a JSON string literal, quotes included.
void appendJsonString(std::string& out, std::string_view text);
// Appends `text` escaped for HTML element content and attribute values.
void appendHtml(std::string& out, std::string_view text);

}  // namespace zulog
