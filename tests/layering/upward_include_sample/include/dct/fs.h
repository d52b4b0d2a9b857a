// The platform layer includes nothing of the layers above it.
#include "dct/status.h"
