// What is said of an options file that is not as it should be.
#pragma once

#include "global_config.h"

namespace zorvctl {

// Nothing keeps the service from taking the file as it stands.
bool is_sound(const zorv::OptionsFile& file);

void complain_unsound(const zorv::OptionsFile& file);
void complain_unsaved(const zorv::SaveResult& result);

}  // namespace zorvctl
