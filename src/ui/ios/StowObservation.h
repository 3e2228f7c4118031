#pragma once

// Objective-C++ only: an observation of the panel model that ends with its holder.

#include <memory>
#include <utility>

#include "ui/model.h"

namespace corvelstow {

/// One observer of a model, removed when this object goes: each view of the overlay holds one
/// as an instance variable, so that a view that is gone is told nothing more.
class StowObservation {
 public:
  StowObservation() = default;
  StowObservation(const std::shared_ptr<StowModel>& model, StowModel::Observer observer)
      : model_(model), token_(model->observe(std::move(observer))) {}
  ~StowObservation() { end(); }

  StowObservation(const StowObservation&) = delete;
  StowObservation& operator=(const StowObservation&) = delete;
  StowObservation& operator=(StowObservation&& other) noexcept {
    if (this != &other) {
      end();
      model_ = std::move(other.model_);
      token_ = other.token_;
      other.model_.reset();
    }
    return *this;
  }

 private:
  void end() {
    if (auto model = model_.lock()) model->stopObserving(token_);
    model_.reset();
  }

  std::weak_ptr<StowModel> model_;
  int token_ = 0;
};

}  // namespace corvelstow
