#include <jansson.h>

#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>

#include "commands.h"
#include "display_text.h"
#include "exit_status.h"
#include "global_options.h"
#include "json_ref.h"

namespace zorvctl {
namespace {

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
int answer_wrong_words(const std::vector<std::string>& words) {
  answer_command(words);
  complain("option: say \"get\", \"get SECTION\" or \"set JSON|@FILE|-\"");
  return kUsage;
}

std::optional<std::string> patch_text(const std::string& source) {
  if (source == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), {});
  }
  if (source.empty() || source.front() != '@') {
    return source;
  }
  // The user's own file: it lies where the user says.
  std::ifstream file(source.substr(1), std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (!file) {
    complain("cannot read {}", display_text(source.substr(1)));
    return std::nullopt;
  }
  return text;
}

// Saving reports nothing, and sections that the file does not have are left out of it: what stands
// in the file afterwards tells.
int compare_saved(const json_t* patch) {
  const JsonRef saved(zorv::GlobalConfig().load());
  if (json_object_size(saved.get()) == 0) {
    complain("the options file could not be read or written, the log says why");
    return kFailed;
  }
  int status = kDone;
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(patch), key, value) {
    if (json_equal(value, json_object_get(saved.get(), key)) == 0) {
      complain("'{}' was not stored: {}", display_text(key),
               json_object_get(saved.get(), key) == nullptr
                   ? "the options have no such section"
                   : "the options file could not be written");
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
  const JsonRef patch(json_loads(text->c_str(), 0, &error));
  if (patch == nullptr) {
    complain("this is not JSON: {} (line {}, column {})", display_text(error.text), error.line,
             error.column);
    return kUsage;
  }
  if (!json_is_object(patch.get())) {
    complain("this is JSON, but not an object of sections such as {{\"gw_setting\": ...}}");
    return kUsage;
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
      "not have yet is not stored. The network service is told to apply the VPN gateway anew.");

  noun->footer(
      "The answers are the service's own, for programs: {\"data\": ..., \"error\": 0}, or\n"
      "{\"error\": -1} for words that it does not know.\n\n"
      "Examples:\n"
      "  zorvctl option get gw_setting\n"
      "  zorvctl option set '{\"gw_setting\": {\"as_gw_en\": 0}}'");

  noun->callback([=] {
    const std::vector<std::string> more = noun->remaining(true);
    std::vector<std::string> words;
    if (get->parsed()) {
      words.emplace_back("get");
    } else if (set->parsed()) {
      words.emplace_back("set");
    }
    if (get_section->count() != 0) {
      words.push_back(*section);
    }
    words.insert(words.end(), more.begin(), more.end());
    if (set->parsed() && set_patch->count() != 0 && more.empty()) {
      *run = [patch] { return set_options(*patch); };
    } else if (get->parsed() && more.empty()) {
      *run = [words] { return answer_command(words); };
    } else {
      *run = [words] { return answer_wrong_words(words); };
    }
  });
}

}  // namespace zorvctl
