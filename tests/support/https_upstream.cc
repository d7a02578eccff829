#include "https_upstream.h"
