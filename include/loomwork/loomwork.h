// Everything Loomwork offers, in one include. The SQLite storage of sync
// components is a separate library (loomwork::sqlite, "loomwork/sqlite.h").
#pragma once

#include "loomwork/additions.h"
#include "loomwork/graph.h"
#include "loomwork/listtransform.h"
#include "loomwork/notifications.h"
#include "loomwork/platform.h"
#include "loomwork/runtime.h"
#include "loomwork/segments.h"
#include "loomwork/sync.h"
