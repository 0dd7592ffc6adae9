// Embeddings from a service over HTTP.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "ossilar/search/embedder.h"
#include "ossilar/utils/error.h"

namespace ossilar::search {

// The service gave no vectors. The message names the service, says what went wrong and what to do. It has
// nothing of what the service said when the request had a key.
class EmbeddingError : public utils::Error {
 public:
  explicit EmbeddingError(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

struct HttpEmbedderOptions {
  // The service's base, such as "https://host/v1"; "/embeddings" is added unless the path ends with it.
  std::string url = {};
  std::string model = {};
  // The environment variable that holds the key, "" for none. It is read when texts are embedded.
  std::string key_variable = {};
  std::chrono::milliseconds timeout = std::chrono::seconds(60);  // for one request

  // For tests. Waits between two tries, by default asleep and looking whether the task was cancelled; a
  // number from 0 to 1, by default random.
  std::function<void(std::chrono::milliseconds, const utils::Task&)> wait = {};
  std::function<double()> random = {};
};

// An embedder that asks the service with the usual request, POST {"model", "input": [texts],
// "encoding_format": "float"}, for {"data": [{"index", "embedding"}]}, in batches. A request that fails for a
// reason that may pass (no connection, no time, status 429 or 5xx) is sent again, at most three times, after
// a while that grows.
//
// model() is "http:" with the service's address, without user or query, and the model's name: vectors of the
// same model from two services are not taken for the same. dimensions() asks the service when nothing was
// embedded yet.
//
// Thread-safety: as Embedder. Errors: EmbeddingError; utils::ConfigError for an address that is none, a
// variable that is not set, and a key that would go to another machine without encryption. utils::Cancelled
// passes.
std::unique_ptr<Embedder> make_http_embedder(HttpEmbedderOptions options);

}  // namespace ossilar::search
