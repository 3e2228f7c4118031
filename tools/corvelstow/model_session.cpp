#include "model_session.h"

#include <stdexcept>

#include "store/host_app.h"

namespace corvelstow::cli {

ModelSession::ModelSession(const StowLayout& layout)
    : model_(StowModel::create({layout, StowHostApp::shared(), dispatcher_, *this})) {}

ModelSession::~ModelSession() = default;

void ModelSession::runUntil(const std::function<bool()>& done) {
  dispatcher_.runUntil([&] { return terminated_ || done(); });
}

void ModelSession::followWork(StowProgress sink) {
  model_->observe([this, sink = std::move(sink)](StowModel::Field field, const StowAnimation&) {
    if (field != StowModel::Field::work) return;
    if (const auto* running = model_->work().runningState()) {
      sink(running->fraction, running->detail);
    }
  });
}

void ModelSession::finishWork() {
  runUntil([this] { return model_->work().isIdle(); });
  if (model_->errorText()) throw std::runtime_error(*model_->errorText());
}

}  // namespace corvelstow::cli
