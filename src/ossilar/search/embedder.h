// Texts as vectors whose cosine tells how near they are in meaning.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ossilar/utils/task.h"

namespace ossilar::search {

// Thread-safety: every member may be called from any thread.
class Embedder {
 public:
  Embedder() = default;
  Embedder(const Embedder&) = delete;
  Embedder& operator=(const Embedder&) = delete;
  virtual ~Embedder() = default;

  // Names the model; vectors of different models are never compared.
  virtual std::string model() const = 0;
  virtual std::size_t dimensions() const = 0;
  // What a place in the ranking by these vectors counts where one in the ranking by words counts 1.
  virtual double ranking_weight() const { return 1; }
  // One vector of dimensions() numbers and length 1 (0 for a text without words) per text, in their order.
  // utils::Cancelled when `task` is cancelled.
  virtual std::vector<std::vector<float>> embed(const std::vector<std::string>& texts,
                                                const utils::Task& task) = 0;
};

// The embedder that needs no model, network or start-up.
std::unique_ptr<Embedder> make_local_embedder();

}  // namespace ossilar::search
