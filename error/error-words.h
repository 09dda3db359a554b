// Short words for the status and error values that sessions and connections
// carry in the system database (session_table and connection_table, columns
// `status` and `error`), for people who read them: vesta-monitorctl status
// prints them beside the numbers.  An error value's words say what the
// desktop notification says that is posted for the error codes stored as
// that value.
//
// Constant tables only: callable from any thread, no lock.
#ifndef VESTA_ERROR_ERROR_WORDS_H_
#define VESTA_ERROR_ERROR_WORDS_H_

// The column a stored value comes from.
enum class StoredColumn {
  kSessionError,
  kConnectionError,
  kSessionStatus,
  kConnectionStatus,
};

// The words for `value` in `column`; "unknown" for a value that has none.
// The result is a static string.
const char* StoredValueWords(StoredColumn column, int value);

#endif  // VESTA_ERROR_ERROR_WORDS_H_
