#include "global_config.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "conf_file_lock.h"
#include "global_options.h"
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

OptionsFile read_options() {
  using State = OptionsFile::State;
  errno = 0;
  const nas::ConfFileLock lock(conf_file_read_lock(kOptionsFile));
  const int lock_error = errno;
  const File file = open_options_file("re");
  if (file == nullptr) {
    const bool is_missing = errno == ENOENT || errno == ENOTDIR;
    return {is_missing ? State::missing : State::unopened, lock.held(), strerror(errno), nullptr};
  }
  if (!lock.held()) {
    return {State::unopened, false, std::string("it cannot be locked: ") + strerror(lock_error),
            nullptr};
  }
  json_error_t error;
  JsonRef sections(json_loadf(file.get(), 0, &error));
  if (sections == nullptr && ferror(file.get()) != 0) {
    return {State::unread, true, strerror(errno), nullptr};
  }
  if (sections == nullptr) {
    return {State::broken, true, error.text, nullptr};
  }
  if (!json_is_object(sections.get())) {
    return {State::broken, true, "it is JSON, but not an object", nullptr};
  }
  return {State::read, true, "", std::move(sections)};
}

JsonRef taken_options(const OptionsFile& file) {
  const LogSite site{log_module, __LINE__, "load"};
  if (!file.is_locked) {
    ZORV_LOG_AT(site, error, "conf_file_read_lock failed.");
    return JsonRef(json_object());
  }
  switch (file.state) {
    case OptionsFile::State::missing:
    case OptionsFile::State::unopened:
      ZORV_LOG_AT(site, error, "Open %s failed.", kOptionsFile);
      return JsonRef(json_object());
    case OptionsFile::State::unread:
    case OptionsFile::State::broken:
      ZORV_LOG_AT(site, error, "root isn't a object.");
      return JsonRef(GlobalConfig().get_tmpl());
    case OptionsFile::State::read:
      break;
  }
  return JsonRef(json_incref(file.sections.get()));
}

JsonRef section_of(const json_t* options, const char* key) {
  json_t* const section = json_object_get(options, key);
  return JsonRef(section != nullptr ? json_incref(section) : json_object());
}

// The file is emptied before the patch is looked at: one that is no object leaves an empty file,
// which reads as the default content.
SaveResult save_options(json_t* sections, json_t* patch) {
  using State = SaveResult::State;
  const LogSite site{log_module, __LINE__, "save"};
  {
    const nas::ConfFileLock lock(conf_file_write_lock(kOptionsFile));
    if (!lock.held()) {
      return {State::unlocked, errno};
    }
    File file = open_options_file("wbe");
    if (file == nullptr) {
      return {State::unopened, errno};
    }
    if (json_object_update_existing(sections, patch) != 0) {
      ZORV_LOG_AT(site, error, "Update raw_t to root failed. %s", text_or_empty(dump_json(patch)));
      return {State::unmerged};
    }
    if (!write_options(std::move(file), sections, [&] { zorv_gw_nclog(patch); })) {
      ZORV_LOG_AT(site, error, "Write %s to file failed", text_or_empty(dump_json(sections)));
      return {State::incomplete};
    }
  }
  update_vpn_gw();
  return {};
}

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
  return taken_options(read_options()).release();
}

json_t* GlobalConfig::load(const char* key) const {
  if (key == nullptr) {
    return json_object();
  }
  return section_of(JsonRef(load()).get(), key).release();
}

int GlobalConfig::load(const char* key, JsonValue& ret_out) const {
  if (key == nullptr) {
    return -1;
  }
  ret_out[key] = load(key);
  return 0;
}

int GlobalConfig::save(const char* json_text) const {
  const JsonRef sections(load());
  const JsonRef patch(json_loads(json_text, 0, nullptr));
  save_options(sections.get(), patch.get());
  return 0;
}

}  // namespace zorv
