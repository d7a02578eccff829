#include "tolvanger/appcore/app_core.h"
