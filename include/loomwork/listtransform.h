#pragma once
#include "loomwork/platform.h"
