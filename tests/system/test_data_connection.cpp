#include "router.h"
