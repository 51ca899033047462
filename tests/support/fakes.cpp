#include "support/fakes.h"
