// Everything Loomwork offers, in one include.
#pragma once

#include "loomwork/listtransform.h"
#include "loomwork/platform.h"
