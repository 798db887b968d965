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
#include "global_options.h"
#include "json_ref.h"
#include "options_file.h"

namespace zorvctl {
namespace {

constexpr const char* kFile = zorv::kOptionsFile;

// Hands the words to the service's command, whose answer is the output, byte for byte.
int answer_command(const std::vector<std::string>& words) {
  std::vector<std::string> copies{"option"};
  copies.insert(copies.end(), words.begin(), words.end());
  std::vector<char*> argv;
  argv.reserve(copies.size());
  for (std::string& word : copies) {
    argv.push_back(word.data());
  }
  return zorv::cmd_global_opt(argv[0], static_cast<int>(argv.size()), argv.data());
}

// Words that are no command of the options: the answer for programs, and the reason for people.
int answer_wrong_words() {
  zorv::usage();
  complain("option: say \"get\", \"get SECTION\" or \"set JSON|@FILE|-\"");
  return kUsage;
}

int get_options(const std::vector<std::string>& words) {
  answer_command(words);
  return is_sound_or_missing(read_options_file()) ? kDone : kFailed;
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

// Saving reports nothing, and sections that the file does not have are left out of it: what stands
// in the file afterwards tells.
int compare_saved(const json_t* patch) {
  const OptionsFile saved = read_options_file();
  if (!is_whole_after_saving(saved)) {
    return kFailed;
  }
  int status = kDone;
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(patch), key, value) {
    const json_t* stored = json_object_get(saved.sections.get(), key);
    if (json_equal(value, stored) == 0) {
      complain("'{}' was not stored: {}", display_text(key),
               stored == nullptr ? "there is no such section in the options file"
                                 : "the options file was not written");
      status = kFailed;
    }
  }
  return status;
}

// Saving starts from what can be read: without that it would write the defaults, or nothing.
bool can_be_patched() {
  const OptionsFile file = read_options_file();
  const JsonRef defaults(zorv::GlobalConfig().get_tmpl());
  switch (file.state) {
    case OptionsFile::State::read:
      return can_be_written();
    case OptionsFile::State::unread:
      is_sound_or_missing(file);
      break;
    case OptionsFile::State::missing:
      complain("the options file {} does not exist: put the sections into it that can be set: {}",
               kFile, text_or_empty(dump_json(defaults.get())));
      break;
    case OptionsFile::State::broken:
      complain("the options file {} holds no JSON object ({}): mend it first; the defaults are {}",
               kFile, file.reason, text_or_empty(dump_json(defaults.get())));
      break;
  }
  return false;
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
  if (!can_be_patched()) {
    return kFailed;
  }
  zorv::GlobalConfig().save(text->c_str());
  return compare_saved(patch.get());
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
      std::vector<std::string> words{"get"};
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
