// Asks a service for vectors in batches and tries again what may pass. It trusts nothing in the answer:
// count, indexes, sizes and numbers are checked first, because a wrong vector would be stored with its
// passage and make searches worse without any error.
//
// Once a request carries a key, its answer is never quoted. Searching the answer for the key and masking it,
// the plain way, misses a part of the key or another spelling of it.
#include "ossilar/search/http_embedder.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <utility>

#include "ossilar/search/http_client.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "ossilar/utils/text.h"

namespace ossilar::search {
namespace {

using std::chrono::milliseconds;
using Vectors = std::vector<std::vector<float>>;

// Within what the usual services accept in one request. Larger batches save round trips, but a failed one
// repeats more and has to be computed within one timeout. 64 passages of the longest usual size
// (kLongestPassage) are about 113 KiB; the limit in bytes is for code blocks, which may be longer. A text
// above it goes alone.
constexpr std::size_t kMostTexts = 64;
constexpr std::size_t kMostBytes = std::size_t{256} * 1024;
// Bounds memory. 64 vectors of 4,096 numbers, each some twenty characters long, fit six times.
constexpr std::size_t kLargestAnswer = std::size_t{32} * 1024 * 1024;

// Four tries with pauses of up to 0.5, 1 and 2 s: a service that restarts has a moment to come back, and an
// agent does not wait much longer for a service that is down. kLongestPause matters only if there are more
// tries.
constexpr int kTries = 4;
constexpr milliseconds kFirstPause(500);
constexpr milliseconds kLongestPause = std::chrono::seconds(8);
// A service may ask for hours. Then we wait this long, and fail after the last try rather than keep an agent
// waiting.
constexpr milliseconds kLongestAskedFor = std::chrono::seconds(30);
// Between checks for cancellation: short for a person, long beside the cost of a check.
constexpr milliseconds kSlice(50);

constexpr std::size_t kShownBody = 200;  // bytes of an error page: room for a sentence, not for the page

// In slices, as a Task can be asked but not waited for.
void wait_asleep(milliseconds left, const utils::Task& task) {
  for (; left > milliseconds(0); left -= kSlice) {
    task.check();
    std::this_thread::sleep_for(std::min(left, kSlice));
  }
}

// From the system itself: an engine would have to be kept somewhere, and pauses are rare.
double random_number() {
  std::random_device device;
  return std::uniform_real_distribution<double>(0, 1)(device);
}

// Exponential backoff with full jitter: Brooker, "Exponential Backoff And Jitter", AWS Architecture Blog,
// 2015. The jitter keeps clients that failed together from coming back together. `tries` counts those that
// failed, from 1.
milliseconds pause_after(int tries, double random) {
  const milliseconds longest = std::min(kLongestPause, kFirstPause * (1 << (tries - 1)));
  return std::chrono::duration_cast<milliseconds>(longest * random);
}

// The url with the path of the request, before its query if it has one. Both spellings of the setting, base
// or full address, give the same result, and so the same model().
std::string with_path(std::string_view url) {
  constexpr std::string_view kPath = "/embeddings";
  const std::size_t end = std::min(url.find_first_of("?#"), url.size());
  std::string path(url.substr(0, end));
  while (path.ends_with("/")) path.pop_back();
  if (!path.ends_with(kPath)) path += kPath;
  return path.append(url.substr(end));
}

// The start of a foreign text, made safe for a terminal.
std::string shown(const std::string& body) {
  return utils::printable(utils::valid_utf8(utils::utf8_prefix(body, kShownBody)));
}

// Scaled to length 1, as not every service does that and a search takes dot products for cosines. The sum of
// squares may overflow although each number is finite. A vector of zeros stays as it is.
std::vector<float> vector_in(const Map& item) {
  const Map& numbers = utils::member(item, "embedding");
  if (!numbers.is_array() || numbers.empty())
    throw EmbeddingError("its answer has an item without an embedding");
  std::vector<double> vector;
  double squares = 0;
  for (const Map& number : numbers) {
    if (!number.is_number() || !std::isfinite(number.get<double>()))
      throw EmbeddingError("its answer has an embedding with a value that is not a number");
    vector.push_back(number.get<double>());
    squares += vector.back() * vector.back();
  }
  if (!std::isfinite(squares))
    throw EmbeddingError("its answer has an embedding with numbers that are too large");
  const double length = squares > 0 ? std::sqrt(squares) : 1;
  std::vector<float> scaled;
  scaled.reserve(vector.size());
  for (const double number : vector) scaled.push_back(static_cast<float>(number / length));
  return scaled;
}

void require_size(std::size_t size, std::size_t others) {
  if (size == others) return;
  throw EmbeddingError("its answer has a vector of " + std::to_string(size) + " numbers, and others have " +
                       std::to_string(others));
}

// The vectors of `count` texts, in the order of the texts. Items are placed by their index, as a service may
// give them in any order. With `count` items, each index in range and none twice, no vector is missing.
Vectors vectors_in(const Map& answer, std::size_t count) {
  const Map& data = utils::member(answer, "data");
  if (!data.is_array() || data.size() != count) {
    throw EmbeddingError("its answer has " + std::to_string(data.is_array() ? data.size() : 0) +
                         " embeddings for " + std::to_string(count) + " texts");
  }
  Vectors vectors(count);
  for (const Map& item : data) {
    const Map& index = utils::member(item, "index");
    if (!index.is_number_unsigned() || index.get<std::size_t>() >= count ||
        !vectors[index.get<std::size_t>()].empty())
      throw EmbeddingError("its answer has an item whose index is missing, out of range or repeated");
    vectors[index.get<std::size_t>()] = vector_in(item);
  }
  for (const auto& vector : vectors) require_size(vector.size(), vectors.front().size());
  return vectors;
}

class HttpEmbedder final : public Embedder {
 public:
  // Parses the address, so that a wrong one fails when the wiki is opened and not at the first save.
  explicit HttpEmbedder(HttpEmbedderOptions options)
      : options_(std::move(options)), url_(with_path(options_.url)), address_(parse_address(url_)) {
    if (!options_.wait) options_.wait = wait_asleep;
    if (!options_.random) options_.random = random_number;
  }

  std::string model() const override { return "http:" + address_.where + ":" + options_.model; }

  // Any text would do; services may refuse an empty one.
  std::size_t dimensions() const override {
    if (dimensions_ == 0) embed_batch({"dimensions"}, utils::Task());
    return dimensions_;
  }

  Vectors embed(const std::vector<std::string>& texts, const utils::Task& task) override {
    Vectors all;
    for (std::size_t begin = 0; begin < texts.size();) {
      const std::size_t end = batch_end(texts, begin);
      Vectors batch = embed_batch({texts.begin() + static_cast<std::ptrdiff_t>(begin),
                                   texts.begin() + static_cast<std::ptrdiff_t>(end)},
                                  task);
      std::move(batch.begin(), batch.end(), std::back_inserter(all));
      begin = end;
    }
    return all;
  }

 private:
  // The end of the batch that begins at `begin`: at least one text, whatever its size.
  static std::size_t batch_end(const std::vector<std::string>& texts, std::size_t begin) {
    std::size_t bytes = texts[begin].size();
    std::size_t end = begin + 1;
    while (end < texts.size() && end - begin < kMostTexts && bytes + texts[end].size() <= kMostBytes)
      bytes += texts[end++].size();
    return end;
  }

  Vectors embed_batch(const std::vector<std::string>& texts, const utils::Task& task) const {
    const Map body{{"model", options_.model}, {"input", texts}, {"encoding_format", "float"}};
    const HttpRequest request{.url = url_,
                              .json = body.dump(),
                              .bearer = key(),
                              .timeout = options_.timeout,
                              .largest_answer = kLargestAnswer};
    const HttpAnswer answer = ask(request, task);
    try {
      Vectors vectors = vectors_in(utils::parse_json(answer.body, "its answer"), texts.size());
      check_dimensions(vectors.front().size());
      return vectors;
    } catch (const EmbeddingError& error) {
      throw_no_vectors(error.what());
    } catch (const std::exception& error) {
      // From the JSON parser, also for a number beyond double. Its messages quote the answer.
      throw_no_vectors(request.bearer.empty() ? error.what() : "its answer is not JSON" + unshown());
    }
  }

  [[noreturn]] void throw_no_vectors(const std::string& why) const {
    throw EmbeddingError(service() + ": " + why +
                         "; check that [embedding] url is an embedding service and '" + options_.model +
                         "' an embedding model");
  }

  // The answer to the request, which is sent again while its failure may pass. A pause that the service asks
  // for replaces ours, up to its limit: coming back sooner would only be refused again.
  HttpAnswer ask(const HttpRequest& request, const utils::Task& task) const {
    for (int tries = 1;; ++tries) {
      milliseconds pause = pause_after(tries, options_.random());
      try {
        HttpAnswer answer = post_json(request, task);
        if (answer.status == 200) return answer;
        if (!may_pass(answer.status) || tries == kTries) refuse(answer, request.bearer);
        if (answer.retry_after) pause = std::min<milliseconds>(*answer.retry_after, kLongestAskedFor);
      } catch (const HttpFailure& failure) {
        if (!failure.is_passing() || tries == kTries) {
          throw EmbeddingError("cannot reach " + service() + ": " + failure.what() +
                               "; start the service, or correct [embedding] url");
        }
      }
      options_.wait(pause, task);
      task.check();  // the wait checks before each slice, not after the last
    }
  }

  // Too many requests, and failures of the server. Other refusals are about the request and would be
  // repeated.
  static bool may_pass(long status) { return status == 429 || status >= 500; }

  [[noreturn]] void refuse(const HttpAnswer& answer, const std::string& key) const {
    std::string message = service() + " answered with status " + std::to_string(answer.status) +
                          (key.empty() ? ": " + shown(answer.body) : unshown());
    if (answer.status == 401 || answer.status == 403) {
      message = options_.key_variable.empty()
                    ? service() + " requires a key; set [embedding] api_key_env to the variable that holds it"
                    : service() + " rejects the key in " + options_.key_variable + "; check it";
    } else if (answer.status >= 300 && answer.status < 400) {
      message = service() + " redirects to another address; set [embedding] url to that address";
    }
    throw EmbeddingError(message);
  }

  // In place of the answer when a key was sent: a service may repeat the key, in parts or in another
  // spelling.
  std::string unshown() const {
    return " (not shown, as it may repeat the key in " + options_.key_variable +
           "; see the service's own log)";
  }

  // The key, "" for none. It is read and checked for each request, as the environment is the only place where
  // it is kept. Refused before anything is sent: a key in clear text to another machine, and one with line
  // ends, which would add headers to the request. No message quotes it.
  std::string key() const {
    if (options_.key_variable.empty()) return "";
    const char* value = std::getenv(options_.key_variable.c_str());
    if (value == nullptr || *value == '\0') {
      throw utils::ConfigError("the environment variable " + options_.key_variable +
                               ", which [embedding] api_key_env names, is not set");
    }
    if (address_.scheme == "http" && !address_.is_loopback()) {
      throw utils::ConfigError("[embedding] url: the key would go to " + address_.host +
                               " without encryption; use https");
    }
    if (std::any_of(value, value + std::strlen(value),
                    [](unsigned char c) { return c <= ' ' || c >= 0x7f; })) {
      throw utils::ConfigError("the key in " + options_.key_variable +
                               " has white space or other characters that an HTTP header cannot hold");
    }
    return value;
  }

  // Vectors of another size are of another model. The first answer sets the size, by a single exchange, as
  // several threads may get their first answers at once. A failed exchange leaves the size that is set in
  // `known`.
  void check_dimensions(std::size_t size) const {
    std::size_t known = 0;
    if (!dimensions_.compare_exchange_strong(known, size)) require_size(size, known);
  }

  std::string service() const { return "the embedding service at " + address_.where; }

  HttpEmbedderOptions options_;
  const std::string url_;
  const HttpAddress address_;
  mutable std::atomic<std::size_t> dimensions_ = 0;  // 0 before the first answer, then fixed
};

}  // namespace

std::unique_ptr<Embedder> make_http_embedder(HttpEmbedderOptions options) {
  return std::make_unique<HttpEmbedder>(std::move(options));
}

}  // namespace ossilar::search
