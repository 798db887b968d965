#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <memory>
#include <optional>

#include "commands.h"
#include "default_gateway.h"
#include "display_text.h"
#include "exit_status.h"
#include "global_options.h"
#include "options_complaint.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

using zorv::Gateway;

constexpr const char* kNone = "none";

std::string lower_case(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lower;
}

// "pptp, l2tp, ..., none".
std::string known_types() {
  std::string words;
  for (const zorv::VpnKind& kind : zorv::kVpnKinds) {
    words += kind.name + std::string(", ");
  }
  return words + kNone;
}

std::optional<zorv::TYPE> type_of(const std::string& text) {
  const std::string word = lower_case(text);
  for (const zorv::VpnKind& kind : zorv::kVpnKinds) {
    if (word == kind.name || text == fmt::to_string(int{kind.client})) {
      return kind.client;
    }
  }
  return word == kNone || text == "0" ? std::optional(zorv::NONE_TYPE) : std::nullopt;
}

// "OpenVPN client 3 (OPENVPN_CLIENT3)".
std::string client_text(const Gateway& gateway) {
  const auto kind = static_cast<zorv::TYPE>(gateway.type);
  const std::string name = zorv::type_to_string(kind);
  if (name.empty()) {
    return kind == zorv::NONE_TYPE ? kNone
                                   : fmt::format("type {} number {}", gateway.type, gateway.index);
  }
  return fmt::format("{} client {} ({})", name, gateway.index,
                     zorv::typeindex_to_sname(kind, gateway.index));
}

std::string settings_text(const json_t* section) {
  const zorv::GatewaySettings settings = zorv::gateway_settings(section);
  if (!settings.is_enabled) {
    return "default gateway  not a VPN client\n";
  }
  std::string text = fmt::format("default gateway  {}\n", client_text(settings.primary));
  if (!settings.backup) {
    return text + "backup           none\n";
  }
  text += fmt::format("backup           {}\n", client_text(*settings.backup));
  const int interval = settings.interval;
  return text + fmt::format("back after       {}\n", interval < 0    ? "never"
                                                     : interval == 0 ? "at once"
                                                                     : fmt::to_string(interval));
}

// What the service takes the file's section for; nothing where the file could not be had.
JsonRef taken_section(const zorv::OptionsFile& file) {
  if (!is_sound(file) && file.state != zorv::OptionsFile::State::broken) {
    return nullptr;
  }
  return zorv::section_of(zorv::taken_options(file).get(), zorv::kGatewaySection);
}

int show_gateway(bool json) {
  const std::optional<Gateway> current = zorv::current_gateway();
  const zorv::OptionsFile file = zorv::read_options();
  if (!is_sound(file)) {
    complain_unsound(file);
  }
  if (!current) {
    complain("the network service does not tell which gateway is in use");
  }
  const JsonRef section = taken_section(file);
  if (json) {
    const JsonRef in_use(
        current ? json_pack("{s:i,s:i}", "type", current->type, "index", current->index)
                : json_null());
    json_t* const settings = section != nullptr ? section.get() : json_null();
    const JsonRef both(json_pack("{s:O,s:O}", "current", in_use.get(), "gw_setting", settings));
    print(std::string(text_or_empty(dump_json(both.get()))) + "\n");
  } else {
    print(fmt::format("in use           {}\n", current ? client_text(*current) : "unknown"));
    print(section != nullptr ? settings_text(section.get()) : "default gateway  unknown\n");
  }
  return current && is_sound(file) ? kDone : kFailed;
}

int disable_gateway(const std::string& type_text, const std::string& index_text) {
  const auto type = type_of(type_text);
  if (!type) {
    complain("'{}' is not a VPN client's type: {}, or its number", display_text(type_text),
             known_types());
    return kUsage;
  }
  int index = 0;
  if (!whole_number(index_text, &index)) {
    complain("'{}' is not a client's number", display_text(index_text));
    return kUsage;
  }
  const zorv::OptionsFile file = zorv::read_options();
  if (!is_sound(file)) {
    complain_unsound(file);
    return kFailed;
  }
  json_t* const section = json_object_get(file.sections.get(), zorv::kGatewaySection);
  if (zorv::remove_gateway(section, {*type, index}) != zorv::Removal::changed) {
    print("nothing changed: this client is not a gateway\n");
    return kDone;
  }
  const zorv::SaveResult result = zorv::save_removal(file.sections.get());
  if (result.state != zorv::SaveResult::State::written) {
    complain_unsaved(result);
    return kFailed;
  }
  print(settings_text(section));
  return kDone;
}

}  // namespace

void add_gateway_noun(CLI::App& program, Run* run) {
  CLI::App* noun = program.add_subcommand("gateway", "VPN clients as the NAS's default gateway");
  noun->require_subcommand(1);

  auto json = std::make_shared<bool>(false);
  CLI::App* show = noun->add_subcommand("show", "Show the gateway in use and the settings");
  show->add_flag("-j,--json", *json, "As one JSON object");
  show->callback([=] { *run = [=] { return show_gateway(*json); }; });

  auto type = std::make_shared<std::string>();
  auto index = std::make_shared<std::string>();
  CLI::App* disable = noun->add_subcommand(
      "disable", "Take a VPN client that is disabled or removed out of the gateway settings");
  disable->add_option("type", *type, known_types() + ", or the number")
      ->required()
      ->type_name("TYPE");
  disable->add_option("index", *index, "The client's number within its type")
      ->required()
      ->type_name("INDEX");
  disable->footer("Example:\n  zorvctl gateway disable openvpn 2");
  disable->callback([=] { *run = [=] { return disable_gateway(*type, *index); }; });
}

}  // namespace zorvctl
