#include "ApiCommon.h"

#include <sstream>

#include <Poco/JSON/Object.h>

// NOLINTNEXTLINE(performance-unnecessary-value-param): hosts are built against this signature
std::string makeJsonDefault(int code, std::string msg)
{
    Poco::JSON::Object json(0);  // sorts its members by name
    json.set("code", code);
    json.set("msg", msg);
    std::stringstream text;
    json.stringify(text, 0, -1);
    return text.str();
}
