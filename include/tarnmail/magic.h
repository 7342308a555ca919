/* tarnmail/magic.h */
#ifndef TARNMAIL_MAGIC_H
#define TARNMAIL_MAGIC_H

#include "tarnmail/api.h"

#endif
