// Embeddings from a service over HTTP. Made by host/open_wiki.cc when ossilar.toml has [embedding] provider =
// "http".
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "ossilar/search/embedder.h"
#include "ossilar/utils/error.h"

namespace ossilar::search {

// The service gave no vectors. The message names the service and says what went wrong and what to do. If the
// request carried a key, the message quotes nothing of the answer.
class EmbeddingError : public utils::Error {
 public:
  explicit EmbeddingError(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

struct HttpEmbedderOptions {
  // The service's base, such as "https://host/v1"; "/embeddings" is added unless the path ends with it.
  std::string url = {};
  std::string model = {};
  // The environment variable that holds the key, "" for none. It is read for each request, not when the
  // embedder is made: a wiki can be opened and read without the key.
  std::string key_variable = {};
  // For one request, of which there may be four for each batch. As HttpRequest::timeout.
  std::chrono::milliseconds timeout = std::chrono::seconds(60);

  // Replaced by tests. `wait` waits between two tries and throws utils::Cancelled when the task is cancelled;
  // `random` gives a number from 0 to 1. By default they sleep and draw one. Both are called from several
  // threads at once.
  std::function<void(std::chrono::milliseconds, const utils::Task&)> wait = {};
  std::function<double()> random = {};
};

// An embedder that asks the service in batches, with the usual request: POST {"model", "input": [texts],
// "encoding_format": "float"}, answered by {"data": [{"index", "embedding"}]}. A request that fails for a
// reason that may pass (no connection, timeout, status 429 or 5xx) is sent again, at most three times, after
// growing pauses.
//
// model() is "http:", the service's address without scheme, user and query, and the model's name: the same
// model name at two services may be two models. dimensions() sends a request of its own if nothing was
// embedded yet; that cannot be cancelled.
//
// Thread-safety: as Embedder; embed() blocks its own thread only. Texts must be UTF-8; for others JSON's own
// exception passes. Errors: here, utils::ConfigError for an invalid address. From embed() and dimensions():
// EmbeddingError; utils::ConfigError for a variable that is not set, a key that no header may contain, and a
// key that would go to another machine without encryption; utils::Cancelled.
std::unique_ptr<Embedder> make_http_embedder(HttpEmbedderOptions options);

}  // namespace ossilar::search
