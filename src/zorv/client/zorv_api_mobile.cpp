#include "zorv_api_mobile.h"

#include "zorv_api_caller.h"

namespace {

LogModule log_module{"zorv_api_mobile"};

}  // namespace

int zorv_mobile_gen_zorv_uuid(zorv_mobile_gen_uuid_data_set* set,
                              zorv_mobile_gen_uuid_data_get** get) {
  const zorv_api::Caller caller{ZORV_HERE, __PRETTY_FUNCTION__, "zorv_mobile_gen_zorv_uuid"};
  const int status = zorv_api::make_uuid(*set, **get, caller.begin());
  if (status != KX_SUCCESS) {
    ZORV_LOG(debug, "kx_call failed, ret = %d", status);
  }
  return 0;
}
