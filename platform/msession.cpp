// msession.cpp - the session of the request being served.
//
// The CGI program fills the record once it has checked who is signed in;
// until then every field is empty.

#include "tarnplat.h"

extern "C" {

TARNPLAT_API MSESSION g_stSession = {};

}  // extern "C"
