#include "zorv_api_mobile.h"
