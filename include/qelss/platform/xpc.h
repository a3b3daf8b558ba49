#pragma once

// A small reference-counted variant with the C-style API of the platform's
// inter-process messaging objects. Values hold their scalars in it, hashes and
// arrays build its dictionaries and arrays on request, and the IPC layer sends it.
//
// Ownership. Every *_create and xpc_copy call returns a new reference that the
// caller owns and gives back with xpc_release. Getters that return an object or a
// pointer into one (xpc_array_get_value, xpc_dictionary_get_value,
// xpc_string_get_string_ptr, ...) lend it: it stays valid while the object that
// holds it lives and, for a container element, while the container keeps it.
//
// Kinds. Null, bool, int64, uint64, double, string, data, date and UUID objects
// are immutable. Most numbers and dates cost no allocation: the object pointer
// itself carries the value, so two objects of one such value may be the same
// pointer. Never look behind an xpc_object_t; compare objects with xpc_equal. Arrays and dictionaries are mutable containers with an internal
// lock: any number of threads may read and change one container at once.
// Reference counts are atomic, so any object may be retained and released from
// any thread. A container must never hold itself, directly or through another
// container: the cycle would never be freed and equality, hashing and copying
// would not end. Inserting a container into itself directly is refused.
//
// Misuse. Getters called on an object of another kind (or on null) return the
// kind's neutral answer (0, false, NULL, an empty count) instead of aborting.
// Mutators answer false when they change nothing because an argument is unusable.
//
// Nothing here throws, and appliers must not throw either; running out of memory
// while a container grows ends the process.

#include <cstddef>
#include <cstdint>
#include <functional>

#include "qelss/Export.h"

struct _xpc_object_s;
struct _xpc_type_s;

using xpc_object_t = _xpc_object_s*;
// The identity of a kind: compare with the XPC_TYPE_* constants.
using xpc_type_t = const _xpc_type_s*;

extern QELSS_EXPORT const _xpc_type_s _xpc_type_null;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_bool;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_int64;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_uint64;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_double;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_string;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_data;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_date;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_uuid;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_array;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_dictionary;
extern QELSS_EXPORT const _xpc_type_s _xpc_type_error;

#define XPC_TYPE_NULL (&_xpc_type_null)
#define XPC_TYPE_BOOL (&_xpc_type_bool)
#define XPC_TYPE_INT64 (&_xpc_type_int64)
#define XPC_TYPE_UINT64 (&_xpc_type_uint64)
#define XPC_TYPE_DOUBLE (&_xpc_type_double)
#define XPC_TYPE_STRING (&_xpc_type_string)
#define XPC_TYPE_DATA (&_xpc_type_data)
#define XPC_TYPE_DATE (&_xpc_type_date)
#define XPC_TYPE_UUID (&_xpc_type_uuid)
#define XPC_TYPE_ARRAY (&_xpc_type_array)
#define XPC_TYPE_DICTIONARY (&_xpc_type_dictionary)
#define XPC_TYPE_ERROR (&_xpc_type_error)

// Shared, never-freed error objects that a connection delivers instead of a
// message: the peer went away for good (invalid) or the link broke and may come
// back (interrupted). Retain and release are harmless no-ops on them.
extern QELSS_EXPORT _xpc_object_s _xpc_error_connection_invalid;
extern QELSS_EXPORT _xpc_object_s _xpc_error_connection_interrupted;
#define XPC_ERROR_CONNECTION_INVALID (&_xpc_error_connection_invalid)
#define XPC_ERROR_CONNECTION_INTERRUPTED (&_xpc_error_connection_interrupted)
// The process is about to end: no connection sends it on Linux, but owners
// act on it as on an invalid connection.
extern QELSS_EXPORT _xpc_object_s _xpc_error_termination_imminent;
#define XPC_ERROR_TERMINATION_IMMINENT (&_xpc_error_termination_imminent)
// xpc_dictionary_get_string(error, XPC_ERROR_KEY_DESCRIPTION) gives an error's text.
#define XPC_ERROR_KEY_DESCRIPTION "XPCErrorDescription"

// Index for xpc_array_set_value that appends.
#define XPC_ARRAY_APPEND (static_cast<size_t>(-1))

// --- Every kind -----------------------------------------------------------------

// Adds a reference and returns `object`. NULL is accepted and returned.
QELSS_EXPORT xpc_object_t xpc_retain(xpc_object_t object) noexcept;
// Drops a reference; the last one frees the object (and releases a container's
// elements). NULL is accepted.
QELSS_EXPORT void xpc_release(xpc_object_t object) noexcept;
// A new reference to an object equal to `object`. Immutable kinds answer the same
// object retained (no allocation). Arrays and dictionaries answer a new container
// holding the same elements, each retained: the copy is one level deep, so nested
// containers are shared with the original. NULL for NULL or when memory runs out.
QELSS_EXPORT xpc_object_t xpc_copy(xpc_object_t object) noexcept;
// The kind of `object`; NULL for NULL.
QELSS_EXPORT xpc_type_t xpc_get_type(xpc_object_t object) noexcept;
// A short name of a kind ("int64", "dictionary"); "" for NULL.
QELSS_EXPORT const char* xpc_type_get_name(xpc_type_t type) noexcept;
// True when both are of one kind with equal content. Kinds never compare equal
// to each other (int64 5 is not uint64 5). Doubles compare by value (0.0 equals
// -0.0, NaN equals nothing). Arrays compare element by element, dictionaries by
// their key sets and the values under each key, both all the way down. Two NULLs
// are equal; NULL equals no object.
QELSS_EXPORT bool xpc_equal(xpc_object_t a, xpc_object_t b) noexcept;
// A hash consistent with xpc_equal; 0 for NULL.
QELSS_EXPORT size_t xpc_hash(xpc_object_t object) noexcept;

// --- Scalars --------------------------------------------------------------------

// The shared null object.
QELSS_EXPORT xpc_object_t xpc_null_create() noexcept;

// The shared true or false object.
QELSS_EXPORT xpc_object_t xpc_bool_create(bool value) noexcept;
QELSS_EXPORT bool xpc_bool_get_value(xpc_object_t xbool) noexcept;

QELSS_EXPORT xpc_object_t xpc_int64_create(int64_t value) noexcept;
QELSS_EXPORT int64_t xpc_int64_get_value(xpc_object_t xint) noexcept;

QELSS_EXPORT xpc_object_t xpc_uint64_create(uint64_t value) noexcept;
QELSS_EXPORT uint64_t xpc_uint64_get_value(xpc_object_t xuint) noexcept;

QELSS_EXPORT xpc_object_t xpc_double_create(double value) noexcept;
QELSS_EXPORT double xpc_double_get_value(xpc_object_t xdouble) noexcept;

// Copies the NUL-terminated UTF-8 text; NULL for a NULL pointer.
QELSS_EXPORT xpc_object_t xpc_string_create(const char* string) noexcept;
// The object's own NUL-terminated text; NULL when `xstring` is not a string.
QELSS_EXPORT const char* xpc_string_get_string_ptr(xpc_object_t xstring) noexcept;
// Bytes before the terminating NUL.
QELSS_EXPORT size_t xpc_string_get_length(xpc_object_t xstring) noexcept;

// Copies `length` bytes. `bytes` may be NULL only when `length` is 0.
QELSS_EXPORT xpc_object_t xpc_data_create(const void* bytes, size_t length) noexcept;
// The object's own bytes (a valid pointer even for empty data); NULL when
// `xdata` is not data.
QELSS_EXPORT const void* xpc_data_get_bytes_ptr(xpc_object_t xdata) noexcept;
QELSS_EXPORT size_t xpc_data_get_length(xpc_object_t xdata) noexcept;

// Nanoseconds since 1970-01-01 00:00 UTC.
QELSS_EXPORT xpc_object_t xpc_date_create(int64_t interval) noexcept;
QELSS_EXPORT xpc_object_t xpc_date_create_from_current() noexcept;
QELSS_EXPORT int64_t xpc_date_get_value(xpc_object_t xdate) noexcept;

// Copies 16 bytes; NULL for a NULL pointer.
QELSS_EXPORT xpc_object_t xpc_uuid_create(const unsigned char* uuid) noexcept;
// The object's own 16 bytes; NULL when `xuuid` is not a UUID.
QELSS_EXPORT const uint8_t* xpc_uuid_get_bytes(xpc_object_t xuuid) noexcept;

// --- Arrays ---------------------------------------------------------------------

// Called for each element in index order; return false to stop.
using xpc_array_applier_t = std::function<bool(size_t index, xpc_object_t value)>;

// A new array holding the `count` objects (each retained). `objects` may be NULL
// when `count` is 0; a NULL element gives NULL.
QELSS_EXPORT xpc_object_t xpc_array_create(const xpc_object_t* objects, size_t count) noexcept;
// Appends `value` (retained).
QELSS_EXPORT bool xpc_array_append_value(xpc_object_t xarray, xpc_object_t value) noexcept;
// Replaces the element at `index` (releasing the old one) or, with
// XPC_ARRAY_APPEND, appends. An index at or beyond the count changes nothing.
QELSS_EXPORT bool xpc_array_set_value(xpc_object_t xarray, size_t index,
                                      xpc_object_t value) noexcept;
// The element at `index` (lent); NULL when out of range.
QELSS_EXPORT xpc_object_t xpc_array_get_value(xpc_object_t xarray, size_t index) noexcept;
QELSS_EXPORT size_t xpc_array_get_count(xpc_object_t xarray) noexcept;
// Calls `applier` for each element of the array as it was when the call began;
// the applier may change the array (it sees no such change) and runs outside
// the array's lock. Returns true when every element was visited, false when the
// applier stopped the walk or `xarray` is not an array.
QELSS_EXPORT bool xpc_array_apply(xpc_object_t xarray, const xpc_array_applier_t& applier) noexcept;

// --- Dictionaries ---------------------------------------------------------------

// Called for each entry in ascending byte order of the keys; return false to stop.
using xpc_dictionary_applier_t = std::function<bool(const char* key, xpc_object_t value)>;

// A new dictionary of `count` pairs (values retained; a later duplicate key
// wins). A NULL key or value gives NULL.
QELSS_EXPORT xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values,
                                                size_t count) noexcept;
// Stores `value` (retained) under a copy of `key`, releasing a replaced value.
// A NULL value removes the key.
QELSS_EXPORT bool xpc_dictionary_set_value(xpc_object_t xdict, const char* key,
                                           xpc_object_t value) noexcept;
// The value under `key` (lent); NULL when absent.
QELSS_EXPORT xpc_object_t xpc_dictionary_get_value(xpc_object_t xdict, const char* key) noexcept;
QELSS_EXPORT size_t xpc_dictionary_get_count(xpc_object_t xdict) noexcept;
// As xpc_array_apply, over a snapshot of the entries; `key` is valid during the call.
QELSS_EXPORT bool xpc_dictionary_apply(xpc_object_t xdict,
                                       const xpc_dictionary_applier_t& applier) noexcept;

// Typed conveniences: setters create the scalar and store it; getters answer
// the neutral value when the key is absent or holds another kind.
QELSS_EXPORT bool xpc_dictionary_set_bool(xpc_object_t xdict, const char* key, bool value) noexcept;
QELSS_EXPORT bool xpc_dictionary_set_int64(xpc_object_t xdict, const char* key,
                                           int64_t value) noexcept;
QELSS_EXPORT bool xpc_dictionary_set_uint64(xpc_object_t xdict, const char* key,
                                            uint64_t value) noexcept;
QELSS_EXPORT bool xpc_dictionary_set_double(xpc_object_t xdict, const char* key,
                                            double value) noexcept;
QELSS_EXPORT bool xpc_dictionary_set_string(xpc_object_t xdict, const char* key,
                                            const char* string) noexcept;
QELSS_EXPORT bool xpc_dictionary_get_bool(xpc_object_t xdict, const char* key) noexcept;
QELSS_EXPORT int64_t xpc_dictionary_get_int64(xpc_object_t xdict, const char* key) noexcept;
QELSS_EXPORT uint64_t xpc_dictionary_get_uint64(xpc_object_t xdict, const char* key) noexcept;
QELSS_EXPORT double xpc_dictionary_get_double(xpc_object_t xdict, const char* key) noexcept;
// Also answers an error object's text for XPC_ERROR_KEY_DESCRIPTION.
QELSS_EXPORT const char* xpc_dictionary_get_string(xpc_object_t xdict, const char* key) noexcept;
