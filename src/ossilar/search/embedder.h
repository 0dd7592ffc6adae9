// Embedders: texts as vectors whose cosine says how close they are in meaning.
//
// host/open_wiki.cc makes the one that ossilar.toml names; passages/ in workers/wiki embeds passages and
// queries with it. One embedder serves all threads of a process. A call that fails leaves nothing behind.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ossilar/utils/task.h"

namespace ossilar::search {

// Thread-safety: every member may be called from any thread, several at once.
// Errors: those of the embedder, see its make_...(); a local one throws none of its own.
class Embedder {
 public:
  Embedder() = default;
  Embedder(const Embedder&) = delete;
  Embedder& operator=(const Embedder&) = delete;
  virtual ~Embedder() = default;

  // The name under which vectors are stored. Vectors of different models are never compared, so whatever
  // changes the vectors must change this name.
  virtual std::string model() const = 0;
  // The size of each vector. May have to ask a service, and so may block and throw.
  virtual std::size_t dimensions() const = 0;
  // The weight of a rank by these vectors in search::fuse(), where the ranking by words has weight 1.
  virtual double ranking_weight() const { return 1; }
  // Whether a cosine of these vectors says by itself how close two texts are: about 0 for unrelated ones with
  // any text, so that it can be added to a share of words found. Cosines of other models mean something only
  // beside each other.
  virtual bool has_known_scale() const { return false; }
  // One vector per text, in the order of the texts. Each has dimensions() numbers and length 1, or is all
  // zeros where the embedder finds nothing in the text. All texts or none: a failure gives no vector. An
  // embedder that waits for a service throws utils::Cancelled soon after `task` is cancelled; the local one
  // never waits.
  virtual std::vector<std::vector<float>> embed(const std::vector<std::string>& texts,
                                                const utils::Task& task) = 0;
};

// The default embedder. It needs no model file, no network and no start-up, and gives the same vectors on
// every machine, so that stored ones stay comparable. See embedder.cc for what it knows.
std::unique_ptr<Embedder> make_local_embedder();

}  // namespace ossilar::search
