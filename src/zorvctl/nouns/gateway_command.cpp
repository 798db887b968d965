#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <memory>
#include <optional>

#include "commands.h"
#include "display_text.h"
#include "exit_status.h"
#include "global_options.h"
#include "json_ref.h"
#include "options_file.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr const char* kSection = "gw_setting";

struct TypeWord {
  const char* word;
  zorv::TYPE type;
};
constexpr TypeWord kClientTypes[] = {
    {"pptp", zorv::PPTP_CLIENT_TYPE},           {"l2tp", zorv::L2TP_CLIENT_TYPE},
    {"openvpn", zorv::OVPN_CLIENT_TYPE},        {"fenlo", zorv::FENLO_CLIENT_TYPE},
    {"wireguard", zorv::WIREGUARD_CLIENT_TYPE}, {"none", zorv::NONE_TYPE},
};

std::optional<zorv::TYPE> type_of(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const TypeWord& known : kClientTypes) {
    if (lower == known.word || text == fmt::to_string(static_cast<int>(known.type))) {
      return known.type;
    }
  }
  return std::nullopt;
}

// "OpenVPN client 3 (OPENVPN_CLIENT3)".
std::string client_text(int type, int index) {
  const auto kind = static_cast<zorv::TYPE>(type);
  const std::string name = zorv::type_to_string(kind);
  if (name.empty()) {
    return type == zorv::NONE_TYPE ? "none" : fmt::format("type {} number {}", type, index);
  }
  return fmt::format("{} client {} ({})", name, index, zorv::typeindex_to_sname(kind, index));
}

struct CurrentGateway {
  bool known = false;
  int type = 0;
  int index = 0;
};

CurrentGateway current_gateway() {
  JsonValue answer;
  zorv::GlobalConfig().get_vpn_gw(answer);
  std::string text;
  answer.toString(text);
  const JsonRef parsed(json_loads(text.c_str(), 0, nullptr));
  const json_t* type = json_object_get(parsed.get(), "type");
  if (!json_is_integer(type)) {
    return {};
  }
  return {true, static_cast<int>(json_integer_value(type)),
          static_cast<int>(json_integer_value(json_object_get(parsed.get(), "index")))};
}

int number_member(const json_t* object, const char* key) {
  return static_cast<int>(
      std::clamp(json_number_value(json_object_get(object, key)), -2147483648.0, 2147483647.0));
}

std::string set_client_text(const json_t* section, const char* key) {
  const json_t* client = json_object_get(section, key);
  return client_text(number_member(client, "type"), number_member(client, "index"));
}

std::string settings_text(const json_t* section) {
  if (number_member(section, "as_gw_en") == 0) {
    return "default gateway  not a VPN client\n";
  }
  std::string text = fmt::format("default gateway  {}\n", set_client_text(section, "gw1"));
  if (number_member(section, "failover_en") == 0) {
    return text + "backup           none\n";
  }
  text += fmt::format("backup           {}\n", set_client_text(section, "gw2"));
  const int interval = number_member(section, "failover_interval");
  return text + fmt::format("back after       {}\n", interval < 0    ? "never"
                                                     : interval == 0 ? "at once"
                                                                     : fmt::to_string(interval));
}

int show_gateway(bool json) {
  const CurrentGateway current = current_gateway();
  const OptionsFile file = read_options_file();
  const bool sound = is_sound_or_missing(file);
  const bool readable = file.state != OptionsFile::State::unread;
  const JsonRef section(readable ? zorv::GlobalConfig().load(kSection) : json_null());
  if (!current.known) {
    complain("the network service does not tell which gateway is in use");
  }
  if (json) {
    const JsonRef in_use(current.known
                             ? json_pack("{s:i,s:i}", "type", current.type, "index", current.index)
                             : json_null());
    const JsonRef both(
        json_pack("{s:O,s:O}", "current", in_use.get(), "gw_setting", section.get()));
    print(std::string(text_or_empty(dump_json(both.get()))) + "\n");
  } else {
    print(fmt::format("in use           {}\n",
                      current.known ? client_text(current.type, current.index) : "unknown"));
    print(readable ? settings_text(section.get()) : "default gateway  unknown\n");
  }
  return current.known && sound ? kDone : kFailed;
}

int disable_gateway(const std::string& type_text, const std::string& index_text) {
  const auto type = type_of(type_text);
  if (!type) {
    complain(
        "'{}' is not a VPN client's type: pptp, l2tp, openvpn, fenlo, wireguard, none, or "
        "its number",
        display_text(type_text));
    return kUsage;
  }
  int index = 0;
  if (!whole_number(index_text, &index)) {
    complain("'{}' is not a client's number", display_text(index_text));
    return kUsage;
  }
  const OptionsFile before = read_options_file();
  if (!is_sound_or_missing(before)) {
    return kFailed;
  }
  const json_t* settings = json_object_get(before.sections.get(), kSection);
  const JsonRef wanted(json_deep_copy(settings));
  if (!zorv::remove_gateway(wanted.get(), *type, index) ||
      json_equal(settings, wanted.get()) != 0) {
    print("nothing changed: this client is not a gateway\n");
    return kDone;
  }
  if (!can_be_written()) {
    return kFailed;
  }
  zorv::GlobalConfig().disable_gateway(*type, index);
  const OptionsFile after = read_options_file();
  if (!is_whole_after_saving(after)) {
    return kFailed;
  }
  const json_t* settled = json_object_get(after.sections.get(), kSection);
  if (json_equal(wanted.get(), settled) == 0) {
    complain("the options file {} was not written, or somebody changed it at once",
             zorv::kOptionsFile);
    return kFailed;
  }
  print(settings_text(settled));
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
  disable->add_option("type", *type, "pptp, l2tp, openvpn, fenlo, wireguard, none, or the number")
      ->required()
      ->type_name("TYPE");
  disable->add_option("index", *index, "The client's number within its type")
      ->required()
      ->type_name("INDEX");
  disable->footer("Example:\n  zorvctl gateway disable openvpn 2");
  disable->callback([=] { *run = [=] { return disable_gateway(*type, *index); }; });
}

}  // namespace zorvctl
