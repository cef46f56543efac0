// Replacing a record as one change.
#ifndef KAVO_LARKDB_RECORDREPLACE_H
#define KAVO_LARKDB_RECORDREPLACE_H

#include <stdint.h>

#include <initializer_list>

#include "kavoDVDB.h"

// Removes the record of the type and name from refNum and adds data in its
// place under the name and id, as one atomic change: whatever instant the
// process ends at, and after any failure, the database holds the old record
// or the new one, never neither. A remove that answers one of the codes in
// `absent` found no record, which is no error; any other refusal of the
// remove, or of the add, is answered. On success the record manager holds
// data, as AddNewRecord leaves it; on failure data is the caller's again.
int16_t ReplaceRecord(int16_t refNum, const char* type, const char* name, int32_t id, MSHandle data,
                      std::initializer_list<int16_t> absent);

#endif  // KAVO_LARKDB_RECORDREPLACE_H
