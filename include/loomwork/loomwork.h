// Everything Loomwork offers, in one include.
#pragma once

#include "loomwork/additions.h"
#include "loomwork/graph.h"
#include "loomwork/listtransform.h"
#include "loomwork/platform.h"
