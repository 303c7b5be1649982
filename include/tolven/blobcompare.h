// Ordering comparison of blobs and fields, the difference of two blobs, and the calls that
// move a field's bytes from one blob into another by position or by name.
//
// Comparisons answer -1, 0 or 1 for `a` below, equal to or above `b`, and 2 when `a` or `b` is
// null (not an ordering). Two fields of one type compare by value: text byte-wise, integers
// by their signedness, floats equal within a tolerance, nested blobs by the calling
// comparison's own rule, time stamps by time, UTF-16 by unit. Arrays and binary compare
// their element counts first, inverted (more elements in `a` gives -1), then their leading
// bytes. Fields of different types meet as numbers when one is a number (as floats when
// either is a float), otherwise as their text; a null field is below anything.
//
// The comparisons hold the read side of both blobs' locks; DiffBlob and the combine and copy
// calls hold the write side of the target's and the read side of the source's for the whole
// call, so two threads must not merge two locked blobs into each other at the same time.
#pragma once

#include <cstdint>

#include "tolven/blob.h"

namespace TOLVEN {

// Tolerances of a comparison; a null pointer stands for the machine epsilons.
struct _blob_compare {
    double doubleTolerance;
    float floatTolerance;
};

// Field by field, by position; then the field counts.
int CompareBlob(const _BLOB_INFO* a, const _BLOB_INFO* b, _blob_compare* tolerance = nullptr);
// Each named field of `a` against the first of its name in `b` (missing in `b`: 1); then the
// field counts.
int CompareBlobByName(const _BLOB_INFO* a, const _BLOB_INFO* b, _blob_compare* tolerance = nullptr);
// One named field: missing in both 0, in `b` only 1, in `a` only -1.
int CompareBlobByFieldName(const _BLOB_INFO* a, const _BLOB_INFO* b, const char* name,
                           _blob_compare* tolerance = nullptr);
// The names of both blobs in sorted order; the first difference decides. With `log` every
// difference is logged at NORMAL ("Missing field %s in right blob", "... in left blob",
// "Different field %s") and the first one still decides.
int CompareBlobByNameLogDiff(const _BLOB_INFO* a, const _BLOB_INFO* b, _blob_compare* tolerance,
                             bool log);

// Removes from `blob` every named field that `other` has with an equal value (default
// tolerances), leaving what differs or is new. 2 for a null blob, otherwise success.
blob_status DiffBlob(_BLOB_INFO* blob, const _BLOB_INFO* other);

// Merges every field of `source` into `target` by name: a field of the same type and room
// is overwritten in place, nested blobs are merged, anything else replaces the target's
// field at the end. With `keepIfEmpty` an empty value does not overwrite a STRING. A nameless
// source field ends the call with 4; what was merged stays.
blob_status CombineBlobs(_BLOB_INFO* target, const _BLOB_INFO* source, bool keepIfEmpty);
// Merges one field as CombineBlobs does; a null `targetName` keeps the source's name.
blob_status CombineFieldByName(_BLOB_INFO* target, const _BLOB_INFO* source, const char* sourceName,
                               const char* targetName, bool keepIfEmpty);
// Field `index` of `source` replaces field `index` of `target` (nested blobs are merged
// instead); the copy goes to the end of `target`. 4 when `source` has no such field.
blob_status CopyField(_BLOB_INFO* target, const _BLOB_INFO* source, uint64_t index);
// As CombineFieldByName, but a nested blob replaces the target's instead of merging.
blob_status CopyFieldByName(_BLOB_INFO* target, const _BLOB_INFO* source, const char* sourceName,
                            const char* targetName);
// As CopyFieldByName from the field at `index` of `source`.
blob_status CopyFieldByName(_BLOB_INFO* target, const _BLOB_INFO* source, uint64_t index,
                            const char* targetName);

// Strips characters of the set `left` from the front and of `right` from the back of a
// STRING field in place (either set may be null); the room stays. 2 for another type, 4
// for no such field. When the back scan reaches the first character, the stripped bytes
// stay in front of the old terminator as padding and the text is not shortened.
blob_status TrimStringField(_BLOB_INFO* blob, uint64_t index, const char* left, const char* right);
blob_status TrimStringFieldByName(_BLOB_INFO* blob, const char* name, const char* left,
                                  const char* right);
// Removes the first field of each name; names that are not there are passed over.
// 2 for a null blob, 13 when the blob preserves its pointers.
blob_status RemoveFieldsByName(_BLOB_INFO* blob, const char** names, uint64_t count);

}  // namespace TOLVEN
