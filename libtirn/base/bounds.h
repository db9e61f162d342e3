// Gives the modules the bounds-checked functions.
#ifndef TIRN_BASE_BOUNDS_H
#define TIRN_BASE_BOUNDS_H

#include "bounded.h"

#endif
