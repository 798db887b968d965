#include "kxbus.h"
