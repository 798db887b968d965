#include <jansson.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "commands.h"
#include "display_text.h"
#include "exit_status.h"
#include "global_option_command.h"
#include "global_options.h"
#include "options_complaint.h"

namespace zorvctl {
namespace {

constexpr const char* kFile = zorv::kOptionsFile;

// Words that are no command of the options: the answer for programs, and the reason for people.
int answer_wrong_words() {
  zorv::usage();
  complain("option: say \"get\", \"get SECTION\" or \"set JSON|@FILE|-\"");
  return kUsage;
}

// The service's command answers, byte for byte.
int get_options(const std::vector<std::string>& words) {
  const auto file = zorv::answer_global_opt(words);
  if (file && !is_sound(*file)) {
    complain_unsound(*file);
    return kFailed;
  }
  return kDone;
}

std::optional<std::string> patch_text(const std::string& source) {
  const bool is_file = source.starts_with('@');
  if (!is_file && source != "-") {
    return source;
  }
  // The user's own file: it lies where the user says.
  FILE* const file = is_file ? fopen(source.c_str() + 1, "re") : stdin;
  std::string text;
  bool complete = file != nullptr;
  if (file != nullptr) {
    char part[4096];
    while (const size_t length = fread(part, 1, sizeof part, file)) {
      text.append(part, length);
    }
    complete = ferror(file) == 0;
  }
  if (!complete) {
    complain("cannot read {}: {}", is_file ? display_text(source.substr(1)) : "standard input",
             std::strerror(errno));
  }
  if (is_file && file != nullptr) {
    fclose(file);
  }
  return complete ? std::optional(text) : std::nullopt;
}

// Saving starts from what can be read: without that it would write the defaults, or nothing.
void complain_unpatchable(const zorv::OptionsFile& file) {
  const JsonRef defaults(zorv::GlobalConfig().get_tmpl());
  switch (file.state) {
    case zorv::OptionsFile::State::missing:
      complain("the options file {} does not exist: put the sections into it that can be set: {}",
               kFile, text_or_empty(dump_json(defaults.get())));
      break;
    case zorv::OptionsFile::State::broken:
      complain("the options file {} holds no JSON object ({}): mend it first; the defaults are {}",
               kFile, display_text(file.reason), text_or_empty(dump_json(defaults.get())));
      break;
    default:
      complain_unsound(file);
  }
}

// The sections that the file does not have are left out of it.
int save_patch(const zorv::OptionsFile& file, json_t* patch) {
  json_t* const sections = file.sections.get();
  const zorv::SaveResult result = zorv::save_options(sections, patch);
  if (result.state != zorv::SaveResult::State::written) {
    complain_unsaved(result);
    return kFailed;
  }
  int status = kDone;
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(patch, key, value) {
    if (json_object_get(sections, key) == nullptr) {
      complain("'{}' was not stored: there is no such section in the options file",
               display_text(key));
      status = kFailed;
    }
  }
  return status;
}

int set_options(const std::string& source) {
  const auto text = patch_text(source);
  if (!text) {
    return kFailed;
  }
  // Checked before anything is opened: a patch that is no object would empty the file.
  json_error_t error;
  const JsonRef patch(json_loadb(text->data(), text->size(), 0, &error));
  if (patch == nullptr) {
    complain("this is not JSON: {} (line {}, column {})", display_text(error.text), error.line,
             error.column);
    return kUsage;
  }
  if (!json_is_object(patch.get())) {
    complain("this is JSON, but not an object of sections such as {{\"gw_setting\": ...}}");
    return kUsage;
  }
  const zorv::OptionsFile file = zorv::read_options();
  if (file.state != zorv::OptionsFile::State::read) {
    complain_unpatchable(file);
    return kFailed;
  }
  return save_patch(file, patch.get());
}

}  // namespace

void add_option_noun(CLI::App& program, Run* run) {
  CLI::App* noun = program.add_subcommand("option", "The VPN service's global options");
  noun->require_subcommand(0, 1);
  noun->allow_extras();

  auto section = std::make_shared<std::string>();
  CLI::App* get = noun->add_subcommand("get", "Print the options, or one section of them");
  const CLI::Option* get_section =
      get->add_option("section", *section, "The section's name")->type_name("SECTION");

  auto patch = std::make_shared<std::string>();
  CLI::App* set = noun->add_subcommand("set", "Replace sections of the options");
  const CLI::Option* set_patch =
      set->add_option("patch", *patch, "An object, @FILE that holds one, or - for standard input")
          ->type_name("JSON|@FILE|-");
  set->footer(
      "Each section that the object names is replaced whole. A section that the options file does\n"
      "not have yet is not stored, and the file must exist. The network service is told to apply\n"
      "the VPN gateway anew.");

  noun->footer(
      "The answers are the service's own, for programs: {\"data\": ..., \"error\": 0}, or\n"
      "{\"error\": -1} for words that it does not know.\n\n"
      "Examples:\n"
      "  zorvctl option get gw_setting\n"
      "  zorvctl option set '{\"gw_setting\": {\"as_gw_en\": 0}}'");

  noun->callback([=] {
    const bool understood = noun->remaining(true).empty();
    if (understood && set->parsed() && set_patch->count() != 0) {
      *run = [patch] { return set_options(*patch); };
    } else if (understood && get->parsed()) {
      std::vector<std::string> words{"option", "get"};
      if (get_section->count() != 0) {
        words.push_back(*section);
      }
      *run = [words] { return get_options(words); };
    } else {
      *run = answer_wrong_words;
    }
  });
}

}  // namespace zorvctl
