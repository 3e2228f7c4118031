#import "ui/ios/StowOverlay.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "platform/apple/foundation_bridge.h"
#import "ui/ios/StowTraits.h"
#include "ui/model.h"
#include "ui/pill_content.h"

using corvelstow::StowAnimation;
using corvelstow::StowModel;
using corvelstow::StowPillContent;
namespace apple = corvelstow::platform::apple;
namespace layout = corvelstow::pill_layout;

namespace {

UIColor* colorFrom(const corvelstow::StowColor& color, double opacity = 1) {
  return [UIColor colorWithRed:color.red green:color.green blue:color.blue alpha:opacity];
}

NSString* textFrom(const std::string& text) {
  NSString* converted = apple::nsStringFrom(text);
  return converted != nil ? converted : @"";
}

// The system font of `size` and `weight`, scaled as `style` is for the user's text size in
// `traits`, but never past kLargestTextScale times `size`.
UIFont* scaledFont(UIFontTextStyle style, double size, UIFontWeight weight,
                   UITraitCollection* _Nullable traits = nil) {
  UIFont* font = [UIFont systemFontOfSize:size weight:weight];
  return
      [[UIFontMetrics metricsForTextStyle:style] scaledFontForFont:font
                                                  maximumPointSize:size * layout::kLargestTextScale
                                     compatibleWithTraitCollection:traits];
}

// Runs `changes` with the animation the model asked for: a spring, an ease-in-out, or (the
// standard one) none at all. `completion` runs once the changes have fully taken effect.
UIViewPropertyAnimator* _Nullable animate(const StowAnimation& animation, void (^changes)(void),
                                          void (^completion)(void)) {
  UIViewPropertyAnimator* animator = nil;
  switch (animation.curve) {
    case StowAnimation::Curve::standard:
      changes();
      completion();
      return nil;
    case StowAnimation::Curve::spring:
      animator = [[UIViewPropertyAnimator alloc] initWithDuration:animation.duration
                                                     dampingRatio:animation.dampingFraction
                                                       animations:changes];
      break;
    case StowAnimation::Curve::easeInOut:
      animator = [[UIViewPropertyAnimator alloc] initWithDuration:animation.duration
                                                            curve:UIViewAnimationCurveEaseInOut
                                                       animations:changes];
      break;
  }
  [animator addCompletion:^(UIViewAnimatingPosition position) {
    if (position == UIViewAnimatingPositionEnd) completion();
  }];
  [animator startAnimation];
  return animator;
}

}  // namespace

#pragma mark - StowCapsule

/// A view whose corners are rounded into a capsule at every size: the pill's button.
STOW_RUNTIME_NAME(StowCapsule)
@interface StowCapsule : UIView
@end

@implementation StowCapsule

- (void)layoutSubviews {
  [super layoutSubviews];
  self.layer.cornerRadius = std::min(self.bounds.size.width, self.bounds.size.height) / 2;
}

@end

#pragma mark - StowPillCard

/// The pill itself: one plain button, left to right the symbol on its backdrop, the title over
/// the subtitle, and the button label on the tint, in a rounded card with a thin stroke over a
/// black shadow. Draws one StowPillContent at a time.
STOW_RUNTIME_NAME(StowPillCard)
@interface StowPillCard : UIControl
- (void)showContent:(const StowPillContent&)content;
@end

@interface StowPillCard () {
  /// The card's material, with the rounded corners and the stroke.
  UIVisualEffectView* _card;
  UIView* _symbolBackdrop;
  UIImageView* _symbol;
  UILabel* _title;
  UILabel* _subtitle;
  StowCapsule* _button;
  UILabel* _buttonLabel;
  /// Whether traitsChanged is registered for the trait changes (iOS 17 and later).
  BOOL _traitsRegistered;
}
@end

@implementation StowPillCard

- (instancetype)initWithFrame:(CGRect)frame {
  if ((self = [super initWithFrame:frame])) {
    [self makeCard];
    [self makeRow];
    [self traitsChanged];
    // From iOS 17 traitCollectionDidChange: gives way to registered trait changes.
    _traitsRegistered = StowObserveDrawingTraits(self, @selector(traitsChanged));
  }
  return self;
}

- (void)makeCard {
  self.layer.shadowColor = UIColor.blackColor.CGColor;
  self.layer.shadowOpacity = static_cast<float>(layout::kShadowOpacity);
  self.layer.shadowRadius = layout::kShadowRadius;
  self.layer.shadowOffset = CGSizeMake(0, layout::kShadowOffsetY);

  _card = [[UIVisualEffectView alloc]
      initWithEffect:[UIBlurEffect effectWithStyle:UIBlurEffectStyleSystemThickMaterial]];
  _card.layer.cornerRadius = layout::kCornerRadius;
  _card.layer.cornerCurve = kCACornerCurveContinuous;
  _card.layer.masksToBounds = YES;
  // Touches belong to the button as a whole.
  _card.userInteractionEnabled = NO;
  _card.translatesAutoresizingMaskIntoConstraints = NO;
  [self addSubview:_card];
  [NSLayoutConstraint activateConstraints:@[
    [_card.leadingAnchor constraintEqualToAnchor:self.leadingAnchor],
    [_card.trailingAnchor constraintEqualToAnchor:self.trailingAnchor],
    [_card.topAnchor constraintEqualToAnchor:self.topAnchor],
    [_card.bottomAnchor constraintEqualToAnchor:self.bottomAnchor],
  ]];
}

- (void)makeRow {
  _symbol = [[UIImageView alloc] init];
  _symbol.contentMode = UIViewContentModeCenter;
  _symbolBackdrop = [[UIView alloc] init];
  _symbolBackdrop.layer.cornerRadius = layout::kSymbolCornerRadius;
  _symbolBackdrop.layer.cornerCurve = kCACornerCurveContinuous;
  [self pin:_symbol centredIn:_symbolBackdrop];

  // The texts follow the user's text size (Dynamic Type) as the text styles of their sizes do.
  _title = [[UILabel alloc] init];
  _title.font = scaledFont(UIFontTextStyleSubheadline, layout::kTitleSize, UIFontWeightSemibold);
  _title.adjustsFontForContentSizeCategory = YES;
  _title.textColor = UIColor.labelColor;
  _title.numberOfLines = layout::kTitleLines;
  _subtitle = [[UILabel alloc] init];
  _subtitle.font = scaledFont(UIFontTextStyleCaption2, layout::kSubtitleSize, UIFontWeightRegular);
  _subtitle.adjustsFontForContentSizeCategory = YES;
  _subtitle.textColor = UIColor.secondaryLabelColor;
  _subtitle.numberOfLines = layout::kSubtitleLines;
  UIStackView* texts = [[UIStackView alloc] initWithArrangedSubviews:@[ _title, _subtitle ]];
  texts.axis = UILayoutConstraintAxisVertical;
  texts.alignment = UIStackViewAlignmentLeading;

  _buttonLabel = [[UILabel alloc] init];
  _buttonLabel.font =
      scaledFont(UIFontTextStyleFootnote, layout::kButtonSize, UIFontWeightSemibold);
  _buttonLabel.adjustsFontForContentSizeCategory = YES;
  _buttonLabel.textColor = UIColor.whiteColor;
  _button = [[StowCapsule alloc] init];
  [self pin:_buttonLabel
      inside:_button
      insets:UIEdgeInsetsMake(layout::kButtonPaddingY, layout::kButtonPaddingX,
                              layout::kButtonPaddingY, layout::kButtonPaddingX)];

  // The texts take the width that is left, and wrap; the symbol and the button keep theirs.
  for (UIView* fixed in @[ _symbolBackdrop, _button ]) {
    [fixed setContentHuggingPriority:UILayoutPriorityRequired
                             forAxis:UILayoutConstraintAxisHorizontal];
    [fixed setContentCompressionResistancePriority:UILayoutPriorityRequired
                                           forAxis:UILayoutConstraintAxisHorizontal];
  }
  [texts setContentHuggingPriority:UILayoutPriorityDefaultLow
                           forAxis:UILayoutConstraintAxisHorizontal];

  UIStackView* row =
      [[UIStackView alloc] initWithArrangedSubviews:@[ _symbolBackdrop, texts, _button ]];
  row.axis = UILayoutConstraintAxisHorizontal;
  row.alignment = UIStackViewAlignmentCenter;
  row.spacing = layout::kSpacing;
  [self pin:row
      inside:_card.contentView
      insets:UIEdgeInsetsMake(layout::kPadding, layout::kPadding, layout::kPadding,
                              layout::kPadding)];
  [NSLayoutConstraint activateConstraints:@[
    [_symbolBackdrop.widthAnchor constraintEqualToConstant:layout::kSymbolFrame],
    [_symbolBackdrop.heightAnchor constraintEqualToConstant:layout::kSymbolFrame],
  ]];
}

- (void)pin:(UIView*)view inside:(UIView*)container insets:(UIEdgeInsets)insets {
  view.translatesAutoresizingMaskIntoConstraints = NO;
  [container addSubview:view];
  [NSLayoutConstraint activateConstraints:@[
    [view.leadingAnchor constraintEqualToAnchor:container.leadingAnchor constant:insets.left],
    [view.trailingAnchor constraintEqualToAnchor:container.trailingAnchor constant:-insets.right],
    [view.topAnchor constraintEqualToAnchor:container.topAnchor constant:insets.top],
    [view.bottomAnchor constraintEqualToAnchor:container.bottomAnchor constant:-insets.bottom],
  ]];
}

- (void)pin:(UIView*)view centredIn:(UIView*)container {
  view.translatesAutoresizingMaskIntoConstraints = NO;
  [container addSubview:view];
  [NSLayoutConstraint activateConstraints:@[
    [view.centerXAnchor constraintEqualToAnchor:container.centerXAnchor],
    [view.centerYAnchor constraintEqualToAnchor:container.centerYAnchor],
  ]];
}

#pragma mark - Content

- (void)showContent:(const StowPillContent&)content {
  UIColor* tint = colorFrom(content.tint);
  _symbol.image = [UIImage systemImageNamed:textFrom(content.symbol)];
  _symbol.tintColor = tint;
  _symbolBackdrop.backgroundColor = colorFrom(content.tint, layout::kSymbolBackdrop);
  _title.text = textFrom(content.title);
  _subtitle.text = content.subtitle ? textFrom(*content.subtitle) : nil;
  _subtitle.hidden = !content.subtitle;
  _buttonLabel.text = content.buttonLabel ? textFrom(*content.buttonLabel) : nil;
  _button.backgroundColor = tint;
  _button.hidden = !content.buttonLabel;
  self.enabled = content.tapOpensPanel;

  self.isAccessibilityElement = YES;
  self.accessibilityLabel = content.subtitle
                                ? [NSString stringWithFormat:@"%@, %@", _title.text, _subtitle.text]
                                : _title.text;
  self.accessibilityTraits =
      content.tapOpensPanel ? UIAccessibilityTraitButton : UIAccessibilityTraitStaticText;
}

#pragma mark - Appearance

- (void)setHighlighted:(BOOL)highlighted {
  [super setHighlighted:highlighted];
  _card.contentView.alpha = highlighted ? 0.6 : 1;
}

- (void)layoutSubviews {
  [super layoutSubviews];
  self.layer.shadowPath = [UIBezierPath bezierPathWithRoundedRect:self.bounds
                                                     cornerRadius:layout::kCornerRadius]
                              .CGPath;
}

- (void)traitCollectionDidChange:(nullable UITraitCollection*)previous {
  [super traitCollectionDidChange:previous];
  if (!_traitsRegistered) [self traitsChanged];
}

// What the traits decide beyond the labels: layers take no dynamic colours, so the stroke is
// resolved again when the appearance changes; the stroke is one pixel of this screen; and the
// symbol follows the text size as the title does.
- (void)traitsChanged {
  UITraitCollection* traits = self.traitCollection;
  _card.layer.borderColor =
      [UIColor.separatorColor resolvedColorWithTraitCollection:traits].CGColor;
  _card.layer.borderWidth = corvelstow::hairline(traits.displayScale);
  _symbol.preferredSymbolConfiguration = [UIImageSymbolConfiguration
      configurationWithFont:scaledFont(UIFontTextStyleSubheadline, layout::kSymbolSize,
                                       UIFontWeightSemibold, traits)];
  // A new text size changes the pill's size.
  [self.superview setNeedsLayout];
}

@end

#pragma mark - StowOverlay

@interface StowOverlay () {
  /// The panel model: what the pill shows, and where its frame goes.
  std::shared_ptr<StowModel> _model;
  /// The pill, hidden while the model's pill is none.
  StowPillCard* _pill;
  /// The animation under way, stopped where it is when the next change comes.
  UIViewPropertyAnimator* _Nullable _animator;
  /// What the pill shows, as last drawn; nothing while the model's pill is none.
  std::optional<StowPillContent> _shown;
}
@end

@implementation StowOverlay

#pragma mark - Lifecycle

- (instancetype)initWithModel:(std::shared_ptr<StowModel>)model {
  if ((self = [super initWithFrame:CGRectZero])) {
    _model = std::move(model);
    self.backgroundColor = UIColor.clearColor;
    _pill = [[StowPillCard alloc] initWithFrame:CGRectZero];
    _pill.hidden = YES;
    _pill.alpha = 0;
    [_pill addTarget:self action:@selector(tapped) forControlEvents:UIControlEventTouchUpInside];
    [self addSubview:_pill];
  }
  return self;
}

- (nullable instancetype)initWithCoder:(NSCoder*)coder {
  std::abort();
}

#pragma mark - The pill

- (BOOL)pillOnScreen {
  return !_pill.hidden;
}

- (void)showPill:(const StowAnimation&)animation {
  std::optional<StowPillContent> content = corvelstow::pillContent(_model->pill());
  // Only an animation still under way can be stopped; one that has finished is left alone.
  if (_animator.state == UIViewAnimatingStateActive) [_animator stopAnimation:YES];
  _animator = nil;
  const bool news = content && content != _shown;
  _shown = content;
  StowPillCard* pill = _pill;
  if (content) {
    [pill showContent:*content];
    pill.hidden = NO;
    [self setNeedsLayout];
    [self layoutIfNeeded];
    _animator = animate(animation,
                        ^{
                          pill.alpha = 1;
                        },
                        ^{
                        });
    // VoiceOver reads the new pill out and moves to it, so that it is heard and can be opened.
    if (news) UIAccessibilityPostNotification(UIAccessibilityLayoutChangedNotification, pill);
  } else {
    __weak StowOverlay* weakSelf = self;
    _animator = animate(
        animation,
        ^{
          pill.alpha = 0;
        },
        ^{
          StowOverlay* overlay = weakSelf;
          if (overlay == nil || overlay->_shown) return;
          pill.hidden = YES;
          if (overlay.pillGone != nil) overlay.pillGone();
        });
  }
}

- (void)tapped {
  std::optional<StowPillContent> content = corvelstow::pillContent(_model->pill());
  if (!content || !content->tapOpensPanel) return;
  apple::catchingAll([self] { _model->openPanelFromPill(); });
}

// VoiceOver's escape gesture (two fingers in a Z) on the pill sends it away.
- (BOOL)accessibilityPerformEscape {
  if (_model->pill().isNone()) return NO;
  apple::catchingAll([self] { _model->dismissPill(); });
  return YES;
}

#pragma mark - Layout

- (void)layoutSubviews {
  [super layoutSubviews];
  CGRect safe = UIEdgeInsetsInsetRect(self.bounds, self.safeAreaInsets);
  // As wide as the content on one line, within the room the engine gives it.
  CGSize natural = [_pill systemLayoutSizeFittingSize:UILayoutFittingCompressedSize];
  CGFloat width = corvelstow::pillWidth(safe.size.width, std::ceil(natural.width));
  if (width <= 0) return;  // not laid out yet: no room to fit the pill into
  CGSize fitted = [_pill systemLayoutSizeFittingSize:CGSizeMake(width, 0)
                       withHorizontalFittingPriority:UILayoutPriorityRequired
                             verticalFittingPriority:UILayoutPriorityFittingSizeLevel];
  corvelstow::StowRect frame = corvelstow::pillFrame(
      {safe.origin.x, safe.origin.y, safe.size.width, safe.size.height}, width, fitted.height);
  _pill.frame = CGRectMake(frame.x, frame.y, frame.width, frame.height);
  // The hit test works in the window's coordinates.
  CGRect inWindow = self.window != nil ? [self convertRect:_pill.frame toView:nil] : _pill.frame;
  _model->setPillFrame(
      {inWindow.origin.x, inWindow.origin.y, inWindow.size.width, inWindow.size.height});
}

- (void)safeAreaInsetsDidChange {
  [super safeAreaInsetsDidChange];
  [self setNeedsLayout];
}

@end
