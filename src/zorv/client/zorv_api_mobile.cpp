#include "zorv_api_mobile.h"

#include "logger.h"
#include "zorv_api_call.h"

namespace {

LogModule log_module{"zorv_api_mobile"};

}  // namespace

int zorv_mobile_gen_zorv_uuid(zorv_mobile_gen_uuid_data_set* set,
                              zorv_mobile_gen_uuid_data_get** get) {
  const kx_io_owner io = zorv_api::create_io("zorv_api_mobile", __PRETTY_FUNCTION__);
  ZORV_LOG(debug, "zorv_mobile_gen_zorv_uuid\n");
  const int status = zorv_api::call(io, "zorv_mobile_gen_zorv_uuid", &set->type, sizeof set->type);
  if (status != KX_SUCCESS) {
    ZORV_LOG(debug, "kx_call failed, ret = %d", status);
    return 0;
  }
  size_t length = 0;
  const void* reply = kx_io_read(io.get(), &length);
  if (reply != nullptr && length >= sizeof **get) {
    std::memcpy((*get)->zorv_uuid, reply, sizeof **get);
  }
  return 0;
}
