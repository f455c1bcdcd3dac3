// Neighbour suppression requests; see neighbour_request.h.
#include "neighbour_request.h"

namespace efhost {

RequestReply neighbour_request(const std::string &request)
{
    return refuse("unknown request '" + request + "'");
}

}  // namespace efhost
