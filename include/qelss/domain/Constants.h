#pragma once

#include <cstdint>

namespace QelSS::Constants {

// The kind of one change record of a transaction, as it is stored under
// "Change". The numbers travel between processes and are kept as they are; note
// that IObserver::ChangeType numbers the same two kinds the other way round.
// A record received from elsewhere may carry another number: every value but
// Delete is treated as a setting.
enum TransactionChangeType : int32_t {
  Delete = 0,  // the value at the path was removed
  Set = 1,     // a value was stored at the path
};

}  // namespace QelSS::Constants
