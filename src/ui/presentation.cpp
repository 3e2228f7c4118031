#include "ui/presentation.h"

namespace corvelstow {

namespace {

bool decides(const StowPresented& presented, StowHostDecision what) {
  using Style = StowPresented::Style;
  switch (presented.style) {
    case Style::root:
    case Style::fullScreen:
      return true;
    case Style::overFullScreen:
      return what == StowHostDecision::window || presented.capturesStatusBar;
    case Style::other:
      return what == StowHostDecision::statusBar && presented.capturesStatusBar;
  }
  return false;
}

}  // namespace

std::size_t decidingPresented(const std::vector<StowPresented>& chain, StowHostDecision what) {
  for (std::size_t i = chain.size(); i > 0; --i) {
    if (decides(chain[i - 1], what)) return i - 1;
  }
  return 0;
}

StowOverlayPlan planOverlay(bool panelShown, const StowOverlayFacts& facts) {
  StowOverlayPlan plan;
  const bool presenting = facts.panelPresented || facts.otherPresented || facts.transitioning;
  plan.windowShown = facts.pillDrawn || panelShown || presenting;
  if (facts.transitioning) return plan;
  if (panelShown && !facts.panelPresented) {
    plan.panel = facts.otherPresented ? StowPanelStep::closeInModel : StowPanelStep::present;
  } else if (!panelShown && facts.panelPresented) {
    plan.panel = StowPanelStep::dismiss;
  }
  return plan;
}

}  // namespace corvelstow
