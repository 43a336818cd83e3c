#include "rpc/req_result.h"

namespace pilot_rpc {

void req_result::check() const
{
    if (data_.empty())
        throw std::logic_error("");
    const int code = std::get<0>(unpack_body<int>(data_));
    if (code != 0)
        throw std::logic_error(std::get<1>(unpack_body<int, std::string>(data_)));
}

}  // namespace pilot_rpc
