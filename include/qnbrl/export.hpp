#pragma once
/// @file
/// QNBRL_EXPORT marks what the shared library exports. The library is built with hidden visibility,
/// so only the public classes marked with it (their members, type information and virtual tables)
/// are part of its ABI; a static library is unaffected.

#if defined(__GNUC__) || defined(__clang__)
#define QNBRL_EXPORT __attribute__((visibility("default")))
#else
#define QNBRL_EXPORT
#endif
