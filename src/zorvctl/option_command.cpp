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

// Hands the words to the service's command, whose answer is the output, byte for byte. `verb` may
// be null.
int answer_command(const char* verb, const std::vector<std::string>& words) {
  std::vector<std::string> copies{"option"};
  if (verb != nullptr) {
    copies.emplace_back(verb);
  }
  copies.insert(copies.end(), words.begin(), words.end());
  std::vector<char*> argv;
  argv.reserve(copies.size());
  for (std::string& word : copies) {
    argv.push_back(word.data());
  }
  return zorv::cmd_global_opt(argv[0], static_cast<int>(argv.size()), argv.data());
}

// Words that are no command of the options: the answer for programs, and the reason for people.
int answer_wrong_words(const char* verb, const std::vector<std::string>& words) {
  answer_command(verb, words);
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
  noun->footer(
      "The answers are the service's own, for programs: {\"data\": ..., \"error\": 0}, or\n"
      "{\"error\": -1} for words that it does not know.\n\n"
      "Examples:\n"
      "  zorvctl option get gw_setting\n"
      "  zorvctl option set '{\"gw_setting\": {\"as_gw_en\": 0}}'");

  auto section = std::make_shared<std::vector<std::string>>();
  CLI::App* get = noun->add_subcommand("get", "Print the options, or one section of them");
  get->add_option("section", *section, "The section's name")->type_name("SECTION");

  auto patch = std::make_shared<std::vector<std::string>>();
  CLI::App* set = noun->add_subcommand("set", "Replace sections of the options");
  set->add_option("patch", *patch, "A JSON object, @FILE that holds one, or - for standard input")
      ->type_name("JSON|@FILE|-");
  set->footer(
      "Each section that the object names is replaced whole. Sections that the options file does\n"
      "not have yet are refused. The network service is told to apply the VPN gateway anew.");

  noun->callback([noun, get, set, section, patch, run] {
    if (set->parsed() && patch->size() == 1) {
      *run = [patch] { return set_options(patch->front()); };
    } else if (get->parsed() && section->size() <= 1) {
      *run = [section] { return answer_command("get", *section); };
    } else if (get->parsed()) {
      *run = [section] { return answer_wrong_words("get", *section); };
    } else if (set->parsed()) {
      *run = [patch] { return answer_wrong_words("set", *patch); };
    } else {
      *run = [words = noun->remaining()] { return answer_wrong_words(nullptr, words); };
    }
  });
}

}  // namespace zorvctl
