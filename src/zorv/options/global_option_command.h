// The command of global_options.h with what its answer cannot tell: how the file was found.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "global_config.h"

namespace zorv {

// As cmd_global_opt() for the same words; nothing where they are not understood.
std::optional<OptionsFile> answer_global_opt(const std::vector<std::string>& words);

}  // namespace zorv
