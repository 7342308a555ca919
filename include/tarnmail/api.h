/* tarnmail/api.h - export marker shared by the libtarnmail headers. */
#ifndef TARNMAIL_API_H
#define TARNMAIL_API_H

#if defined(TARNMAIL_BUILD)
#define TARNMAIL_API __attribute__((visibility("default")))
#else
#define TARNMAIL_API
#endif

#endif /* TARNMAIL_API_H */
