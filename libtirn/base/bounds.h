// The bounds-checked functions, as modules see them.
#ifndef TIRN_BASE_BOUNDS_H
#define TIRN_BASE_BOUNDS_H

#include "bounded.h"

#endif
