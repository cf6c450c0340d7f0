// The kernel transaction database, its tag property table, and data records.
#include "database.h"
