#include <cstdio>
#include <memory>

#include "conf_file_lock.h"
#include "global_options.h"
#include "json_ref.h"
#include "logger.h"
#include "rooted.h"

namespace zorv {
namespace {

LogModule log_module{"global_options"};

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

File open_options_file(const char* mode) {
  return File(fopen(os::rooted(kOptionsFile).c_str(), mode));
}

// Writes the content and lets `on_written` run while the file is still open. False when anything of
// it could not be written, to the very end.
template <class OnWritten>
bool write_options(File file, const json_t* root, OnWritten&& on_written) {
  if (json_dumpf(root, file.get(), 0) != 0 || fflush(file.get()) != 0) {
    return false;
  }
  on_written();
  return fclose(file.release()) == 0;
}

void update_vpn_gw() {
  const JsonRef reply(easy_kx_call(kNetworkService, "external_dev.update_vpn_gw", nullptr));
  if (reply == nullptr) {
    ZORV_LOG(error, "%s: kx_call failed", "update_vpn_gw");
  }
}

}  // namespace

json_t* GlobalConfig::get_tmpl() const {
  JsonRef global(json_object());
  json_object_set_new(global.get(), "version", json_string("1"));
  JsonRef gateway(json_object());
  json_object_set_new(gateway.get(), "as_gw_en", json_integer(0));
  JsonRef root(json_object());
  json_object_set_new(root.get(), "global", global.release());
  json_object_set_new(root.get(), "gw_setting", gateway.release());
  return root.release();
}

json_t* GlobalConfig::load() const {
  const nas::ConfFileLock lock(conf_file_read_lock(kOptionsFile));
  if (!lock.held()) {
    ZORV_LOG(error, "conf_file_read_lock failed.");
    return json_object();
  }
  const File file = open_options_file("re");
  if (file == nullptr) {
    ZORV_LOG(error, "Open %s failed.", kOptionsFile);
    return json_object();
  }
  JsonRef root(json_loadf(file.get(), 0, nullptr));
  if (!json_is_object(root.get())) {
    ZORV_LOG(error, "root isn't a object.");
    return get_tmpl();
  }
  return root.release();
}

json_t* GlobalConfig::load(const char* key) const {
  if (key == nullptr) {
    return json_object();
  }
  const JsonRef root(load());
  json_t* const section = json_object_get(root.get(), key);
  return section != nullptr ? json_incref(section) : json_object();
}

int GlobalConfig::load(const char* key, JsonValue& ret_out) const {
  if (key == nullptr) {
    return -1;
  }
  ret_out[key] = load(key);
  return 0;
}

// The file is emptied before the patch is looked at: one that is no object leaves an empty file,
// which reads as the default content.
int GlobalConfig::save(const char* json_text) const {
  const JsonRef root(load());
  bool saved = false;
  {
    const nas::ConfFileLock lock(conf_file_write_lock(kOptionsFile));
    if (!lock.held()) {
      return 0;
    }
    File file = open_options_file("wbe");
    if (file == nullptr) {
      return 0;
    }
    const JsonRef patch(json_loads(json_text, 0, nullptr));
    if (json_object_update_existing(root.get(), patch.get()) != 0) {
      ZORV_LOG(error, "Update raw_t to root failed. %s", text_or_empty(dump_json(patch.get())));
    } else {
      saved = write_options(std::move(file), root.get(), [&] { zorv_gw_nclog(patch.get()); });
      if (!saved) {
        ZORV_LOG(error, "Write %s to file failed", text_or_empty(dump_json(root.get())));
      }
    }
  }
  if (saved) {
    update_vpn_gw();
  }
  return 0;
}

}  // namespace zorv
