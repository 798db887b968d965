// The text of a tree of 10,000 nodes: 1,000 settings of nine values each, below one array.
#include <jansson.h>

#include <cstdlib>
#include <stdexcept>

#include "families.h"
#include "json.h"
#include "json_ref.h"

namespace bench {
namespace {

constexpr int kSettings = 1000;

std::string name_of(int number) {
  return "profile \"" + std::to_string(number) + "\" of the second office";
}

void build(JsonValue& tree) {
  for (int i = 0; i < kSettings; ++i) {
    auto* setting = new JsonValue;  // owned by the tree from append() on
    (*setting)["name"] = name_of(i);
    (*setting)["server_address"] = "vpn.example.com";
    (*setting)["enable"] = i % 2 == 0;
    (*setting)["type"] = 1 << (i % 12);
    (*setting)["time"] = 1700000000LL + i;
    (*setting)["rate"] = 0.25 * i;
    (*setting)["id"] = static_cast<unsigned>(i);
    (*setting)["interface"] = "tun0";
    (*setting)["parent"];
    tree.append(setting);
  }
}

JsonRef build_with_jansson() {
  JsonRef tree(json_array());
  for (int i = 0; i < kSettings; ++i) {
    json_array_append_new(
        tree.get(), json_pack("{s:b, s:i, s:s, s:s, s:n, s:f, s:s, s:I, s:i}", "enable", i % 2 == 0,
                              "id", i, "interface", "tun0", "name", name_of(i).c_str(), "parent",
                              "rate", 0.25 * i, "server_address", "vpn.example.com", "time",
                              json_int_t{1700000000} + i, "type", 1 << (i % 12)));
  }
  return tree;
}

}  // namespace

void measure_json(Report& report) {
  JsonValue tree;
  build(tree);
  const JsonRef jansson_tree = build_with_jansson();
  std::string text;
  tree.toString(text);
  // The two texts say the same; only a real may be written otherwise.
  if (json_array_size(JsonRef(json_loads(text.c_str(), 0, nullptr)).get()) != kSettings) {
    throw std::runtime_error("the tree's text cannot be read");
  }
  report.compare("text of a tree of 10,000 nodes", {101, 20}, {.of_peer = 1},
                 {{Role::ours, "toString", timed([&tree] {
                     std::string out;
                     tree.toString(out);
                   })},
                  {Role::peer, "json_dumps", timed([&jansson_tree] {
                     const JsonText out = dump_json(jansson_tree.get(), JSON_COMPACT);
                   })},
                  {Role::peer, "json_dumps, reals of six digits", timed([&jansson_tree] {
                     const JsonText out =
                         dump_json(jansson_tree.get(), JSON_COMPACT | JSON_REAL_PRECISION(6));
                   })}});
}

}  // namespace bench
