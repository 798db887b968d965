// The page's own files, as they lie in this folder.
#pragma once

#include <string_view>

namespace zorvctl {

extern const std::string_view kPageHtml;  // with a name in {{ }} for each part that is filled in
extern const std::string_view kPageCss;
extern const std::string_view kPageJs;

}  // namespace zorvctl
