// An error as an OpenAI-style client expects it: an HTTP status and the body
// {"error": {"message", "type", "code", "param"}}.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace quorvel::serve {

class ApiError : public std::runtime_error {
 public:
  ApiError(int status, const std::string& message, std::string code, std::string param = "")
      : std::runtime_error(message), status_(status), code_(std::move(code)), param_(std::move(param)) {}

  int status() const { return status_; }
  const std::string& code() const { return code_; }
  const std::string& param() const { return param_; }

  // "invalid_request_error", "authentication_error", "not_found_error" or "server_error", by status.
  const char* type() const;
  nlohmann::json body() const;

 private:
  int status_;
  std::string code_;
  std::string param_;  // the request field at fault, when there is one
};

// A request that is not what the endpoint takes: 400.
inline ApiError invalid_request(const std::string& message, const std::string& param = "",
                                const std::string& code = "invalid_value") {
  return ApiError(400, message, code, param);
}

}  // namespace quorvel::serve
