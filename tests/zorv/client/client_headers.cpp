// The installed headers as a program of another project sees them: with its compiler's default
// standard, each enough by itself.
#include "zorv_api_db.h"
//
#include "zorv_api_mobile.h"
//
#include "kxbus.h"
#include "zorv_connection_codes.h"

static_assert(sizeof(db_conn_server_log) == 5200);
static_assert(zorv::word_of(zorv::kServerActions, zorv::kLogout)[0] == 'L');
static_assert(KX_SUCCESS == 0);
