// The bridge MAC table requests; see mac_request.h.
#include "mac_request.h"

namespace efhost {

RequestReply mac_request(const std::string &request)
{
    return refuse("unknown request '" + request + "'");
}

}  // namespace efhost
