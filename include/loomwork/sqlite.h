// The ready storage of sync components on SQLite (target loomwork::sqlite).
#pragma once

#include "loomwork/sqlite/OTSQLiteDataSource.h"
#include "loomwork/sync.h"
