#ifndef KRO_API_COMMON_H
#define KRO_API_COMMON_H

#include <string>

#include "KroApi.h"

/// @file
/// The envelope of JSON replies.

/// The standard body of a web API's reply: {"code":0,"msg":"ok"}, without white space and with "code" first.
/// Stands outside namespace kro. Any thread.
/// @param code  has no meaning to the library; a negative one keeps its sign.
/// @param msg   UTF-8; quotes, backslashes and control characters come out escaped (RFC 8259).
KRO_API std::string makeJsonDefault(int code, std::string msg);

#endif
