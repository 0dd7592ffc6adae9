// An answer, and none but an answer, begins with its id or as the list of a batch: messages are written with
// their members in this order (protocol/message.cc). So the text tells which it is, and need not be parsed.
#include "ossilar/mcp/http/exchange.h"

#include <utility>

namespace ossilar::mcp::http {
namespace {

bool is_answer(std::string_view text) { return !text.starts_with(R"({"jsonrpc":"2.0","method":)"); }

}  // namespace

class Exchange::Writer final : public Outlet {
 public:
  explicit Writer(std::shared_ptr<Exchange> exchange) : exchange_(std::move(exchange)) {}
  ~Writer() override { exchange_->end(); }
  bool write(std::string_view text) override {
    exchange_->take(text);
    return true;
  }
  void write_later(std::string text) override { exchange_->take(text); }

 private:
  const std::shared_ptr<Exchange> exchange_;
};

std::shared_ptr<Outlet> Exchange::outlet(const std::shared_ptr<Exchange>& exchange) {
  return std::make_shared<Writer>(exchange);
}

Exchange::Form Exchange::form(std::function<void()> wake) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::undecided) wake_ = std::move(wake);
  return form_;
}

void Exchange::forget_waker() {
  const std::lock_guard lock(mutex_);
  wake_ = nullptr;
}

void Exchange::take(std::string_view text) {
  const std::lock_guard lock(mutex_);
  const bool is_last = is_answer(text);
  if (form_ == Form::undecided && is_last) {
    document_ = text;
    return decide(Form::document);
  }
  if (form_ == Form::document) return;  // one answer is all that a document holds
  if (form_ == Form::undecided) {
    if (primes_) stream_->push("");
    decide(Form::events);
  }
  stream_->push(text);
  if (is_last) stream_->close();
}

void Exchange::end() {
  const std::lock_guard lock(mutex_);
  stream_->close();
  if (form_ == Form::undecided) decide(Form::events);
}

void Exchange::decide(Form form) {
  form_ = form;
  if (const auto wake = std::exchange(wake_, nullptr)) wake();
}

}  // namespace ossilar::mcp::http
