// Options that take a number: in decimal whatever zeros it begins with, and named in the error
// where it is none.
#pragma once

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <string>

namespace zorvctl {

inline CLI::Validator decimal() {
  return {[](std::string& text) -> std::string {
            constexpr size_t kMostDigits = 18;
            const bool digits =
                !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
            if (!digits || text.size() > kMostDigits) {
              return fmt::format("'{}' is not a number", text);
            }
            text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
            return "";
          },
          ""};
}

}  // namespace zorvctl
