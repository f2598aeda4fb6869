// The one export macro: everything is hidden unless a declaration says otherwise.
#ifndef MFWD6_SERVICES_EXPORT_H
#define MFWD6_SERVICES_EXPORT_H

#define MFWD6_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define MFWD6_BEGIN_C extern "C" {
#define MFWD6_END_C }
#else
#define MFWD6_BEGIN_C
#define MFWD6_END_C
#endif

#endif
