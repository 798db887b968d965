#include "zorv_api_db.h"
