#include "host/quorvel/serve/api_error.h"

namespace quorvel::serve {

const char* ApiError::type() const {
  switch (status_) {
    case 401: return "authentication_error";
    case 404: return "not_found_error";
    default: return status_ >= 500 ? "server_error" : "invalid_request_error";
  }
}

nlohmann::json ApiError::body() const {
  nlohmann::json error{{"message", what()}, {"type", type()}, {"code", code_}};
  error["param"] = param_.empty() ? nlohmann::json() : nlohmann::json(param_);
  return {{"error", error}};
}

}  // namespace quorvel::serve
