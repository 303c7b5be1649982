// Marks reads that race by design, for the thread sanitizer only.
//
// A lock-free pop reads the first word of a block that another thread may have taken a
// moment before and is writing; the value read is then thrown away, because the swap
// that would use it fails. The read is atomic, but the other thread's write is a plain
// one, so the sanitizer would still pair them. Inside these marks the sanitizer does not
// record the read; every other access, and every ordering the atomics give, is kept.
// Outside a sanitizer build the marks are nothing.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define TOLVEN_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TOLVEN_THREAD_SANITIZER 1
#endif
#endif

#ifdef TOLVEN_THREAD_SANITIZER
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
#define TOLVEN_IGNORE_READS_BEGIN() AnnotateIgnoreReadsBegin(__FILE__, __LINE__)
#define TOLVEN_IGNORE_READS_END() AnnotateIgnoreReadsEnd(__FILE__, __LINE__)
#else
#define TOLVEN_IGNORE_READS_BEGIN() ((void)0)
#define TOLVEN_IGNORE_READS_END() ((void)0)
#endif
