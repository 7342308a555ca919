/*
 * tarnmail.h - everything libtarnmail exports.
 *
 * The message engine of a web-mail server: decodes one raw e-mail into a
 * tree of MIME entities and renders it as HTML a browser can show safely.
 * C interface; include this one header.
 */
#ifndef TARNMAIL_H
#define TARNMAIL_H

#include "tarnplat.h"
#include "tarnmail/api.h"
#include "tarnmail/decode.h"
#include "tarnmail/charset.h"
#include "tarnmail/encword.h"
#include "tarnmail/magic.h"
#include "tarnmail/tnef.h"
#include "tarnmail/disp.h"
#include "tarnmail/filter.h"
#include "tarnmail/address.h"
#include "tarnmail/date.h"
#include "tarnmail/mailhdr.h"
#include "tarnmail/rcpt.h"
#include "tarnmail/edit.h"
#include "tarnmail/msgutil.h"

#endif /* TARNMAIL_H */
