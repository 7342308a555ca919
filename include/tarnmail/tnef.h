/* tarnmail/tnef.h */
#ifndef TARNMAIL_TNEF_H
#define TARNMAIL_TNEF_H

#include "tarnmail/api.h"

#endif
