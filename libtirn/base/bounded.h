// The bounds-checked functions, as modules see them.
#ifndef TIRN_BASE_BOUNDED_H
#define TIRN_BASE_BOUNDED_H

#include "bounded.h"

#endif
