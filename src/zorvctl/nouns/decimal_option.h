// Options that take a number: in decimal whatever zeros it begins with, and named in the error
// where it is none.
#pragma once

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <string>

#include "whole_number.h"

namespace zorvctl {

inline CLI::Validator decimal() {
  return {[](std::string& text) -> std::string {
            constexpr unsigned long long kLargest = 999'999'999'999'999'999;
            unsigned long long number = 0;
            if (!whole_number(text, &number) || number > kLargest) {
              return fmt::format("'{}' is not a number", text);
            }
            text = fmt::to_string(number);
            return "";
          },
          ""};
}

}  // namespace zorvctl
