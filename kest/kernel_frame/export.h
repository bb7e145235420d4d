#ifndef KEST_KERNEL_FRAME_EXPORT_H_
#define KEST_KERNEL_FRAME_EXPORT_H_

/// \file
/// Visibility of what the library exports.

/// Marks what callers outside the library link to; everything else is built with hidden visibility.
#define KEST_EXPORT __attribute__((visibility("default")))

#endif  // KEST_KERNEL_FRAME_EXPORT_H_
