// The panel's views: the navigation view (StowPanel), the table that draws the engine's
// sections (StowPanelController) and its cells. Every text, symbol, enabled state and action
// comes from panelContent; the views only lay them out and call back.

#import "ui/ios/StowPanel.h"

#include <cstdlib>
#include <optional>
#include <variant>
#include <vector>

#include "base/dates.h"
#include "platform/apple/foundation_bridge.h"
#include "platform/apple/picked_files.h"
#import "ui/ios/StowAppIcon.h"
#import "ui/ios/StowDocumentPicker.h"
#include "ui/ios/StowObservation.h"
#import "ui/ios/StowShareSheet.h"
#include "ui/model.h"
#include "ui/panel_content.h"

using corvelstow::StowModel;
using corvelstow::StowPanelAction;
using Content = corvelstow::StowPanelContent;
namespace apple = corvelstow::platform::apple;

namespace {

NSString* textFrom(const std::string& text) {
  NSString* converted = apple::nsStringFrom(text);
  return converted != nil ? converted : @"";
}

UIImage* _Nullable symbolFrom(const std::string& name) {
  return name.empty() ? nil : [UIImage systemImageNamed:textFrom(name)];
}

// Whether a tap on the row does something: an enabled button, or a scope choice.
bool isActionable(const Content::Row& row) {
  if (const auto* button = std::get_if<Content::Button>(&row)) return button->enabled;
  return std::holds_alternative<Content::Choice>(row);
}

NSString* const kTextCell = @"text";
NSString* const kValueCell = @"value";
NSString* const kButtonCell = @"button";
NSString* const kChoiceCell = @"choice";
NSString* const kHeaderCell = @"header";
NSString* const kProgressCell = @"progress";
NSString* const kSwitchCell = @"switch";
NSString* const kSectionHeader = @"section";

}  // namespace

#pragma mark - StowHeaderCell

/// The app's icon, name and version.
STOW_RUNTIME_NAME(StowHeaderCell)
@interface StowHeaderCell : UITableViewCell
- (void)showHeader:(const Content::Header&)header;
@end

@interface StowHeaderCell () {
  UILabel* _name;
  UILabel* _version;
}
@end

@implementation StowHeaderCell

- (instancetype)initWithStyle:(UITableViewCellStyle)style
              reuseIdentifier:(nullable NSString*)reuseIdentifier {
  if ((self = [super initWithStyle:style reuseIdentifier:reuseIdentifier])) {
    self.selectionStyle = UITableViewCellSelectionStyleNone;
    StowAppIcon* icon = [[StowAppIcon alloc] initWithFrame:CGRectZero];
    _name = [[UILabel alloc] init];
    _name.font = [UIFont preferredFontForTextStyle:UIFontTextStyleTitle3];
    _name.adjustsFontForContentSizeCategory = YES;
    _name.numberOfLines = 0;
    _version = [[UILabel alloc] init];
    _version.font = [UIFont preferredFontForTextStyle:UIFontTextStyleSubheadline];
    _version.adjustsFontForContentSizeCategory = YES;
    _version.textColor = UIColor.secondaryLabelColor;
    UIStackView* texts = [[UIStackView alloc] initWithArrangedSubviews:@[ _name, _version ]];
    texts.axis = UILayoutConstraintAxisVertical;
    UIStackView* row = [[UIStackView alloc] initWithArrangedSubviews:@[ icon, texts ]];
    row.axis = UILayoutConstraintAxisHorizontal;
    row.alignment = UIStackViewAlignmentCenter;
    row.spacing = 16;
    [icon setContentHuggingPriority:UILayoutPriorityRequired
                            forAxis:UILayoutConstraintAxisHorizontal];
    row.translatesAutoresizingMaskIntoConstraints = NO;
    [self.contentView addSubview:row];
    UILayoutGuide* margins = self.contentView.layoutMarginsGuide;
    [NSLayoutConstraint activateConstraints:@[
      [row.leadingAnchor constraintEqualToAnchor:margins.leadingAnchor],
      [row.trailingAnchor constraintEqualToAnchor:margins.trailingAnchor],
      [row.topAnchor constraintEqualToAnchor:margins.topAnchor],
      [row.bottomAnchor constraintEqualToAnchor:margins.bottomAnchor],
    ]];
  }
  return self;
}

- (void)showHeader:(const Content::Header&)header {
  _name.text = textFrom(header.appName);
  _version.text = header.version ? textFrom(*header.version) : nil;
  _version.hidden = !header.version;
}

@end

#pragma mark - StowProgressCell

/// The running work: its title, a bar filled to its fraction, and its detail line.
STOW_RUNTIME_NAME(StowProgressCell)
@interface StowProgressCell : UITableViewCell
- (void)showProgress:(const Content::Progress&)progress;
@end

@interface StowProgressCell () {
  UILabel* _title;
  UIProgressView* _bar;
  UILabel* _detail;
}
@end

@implementation StowProgressCell

- (instancetype)initWithStyle:(UITableViewCellStyle)style
              reuseIdentifier:(nullable NSString*)reuseIdentifier {
  if ((self = [super initWithStyle:style reuseIdentifier:reuseIdentifier])) {
    self.selectionStyle = UITableViewCellSelectionStyleNone;
    _title = [[UILabel alloc] init];
    _title.font = [UIFont preferredFontForTextStyle:UIFontTextStyleBody];
    _title.adjustsFontForContentSizeCategory = YES;
    _bar = [[UIProgressView alloc] initWithProgressViewStyle:UIProgressViewStyleDefault];
    _detail = [[UILabel alloc] init];
    _detail.font = [UIFont preferredFontForTextStyle:UIFontTextStyleFootnote];
    _detail.adjustsFontForContentSizeCategory = YES;
    _detail.textColor = UIColor.secondaryLabelColor;
    _detail.numberOfLines = 0;
    UIStackView* stack = [[UIStackView alloc] initWithArrangedSubviews:@[ _title, _bar, _detail ]];
    stack.axis = UILayoutConstraintAxisVertical;
    stack.spacing = 6;
    stack.translatesAutoresizingMaskIntoConstraints = NO;
    [self.contentView addSubview:stack];
    UILayoutGuide* margins = self.contentView.layoutMarginsGuide;
    [NSLayoutConstraint activateConstraints:@[
      [stack.leadingAnchor constraintEqualToAnchor:margins.leadingAnchor],
      [stack.trailingAnchor constraintEqualToAnchor:margins.trailingAnchor],
      [stack.topAnchor constraintEqualToAnchor:margins.topAnchor],
      [stack.bottomAnchor constraintEqualToAnchor:margins.bottomAnchor],
    ]];
  }
  return self;
}

- (void)showProgress:(const Content::Progress&)progress {
  _title.text = textFrom(progress.title);
  _bar.progress = static_cast<float>(progress.fraction);
  _detail.text = textFrom(progress.detail);
}

@end

#pragma mark - StowSwitchCell

/// An option: its title and note, with the switch at the trailing edge.
STOW_RUNTIME_NAME(StowSwitchCell)
@interface StowSwitchCell : UITableViewCell
/// Called with the switch's new state when the user flips it.
@property(nonatomic, copy, nullable) void (^changed)(BOOL on);
- (void)showSwitch:(const Content::Switch&)option;
@end

@interface StowSwitchCell ()
@property(nonatomic, readonly) UISwitch* toggle;
@end

@implementation StowSwitchCell

- (instancetype)initWithStyle:(UITableViewCellStyle)style
              reuseIdentifier:(nullable NSString*)reuseIdentifier {
  if ((self = [super initWithStyle:style reuseIdentifier:reuseIdentifier])) {
    self.selectionStyle = UITableViewCellSelectionStyleNone;
    _toggle = [[UISwitch alloc] init];
    [_toggle addTarget:self action:@selector(flipped) forControlEvents:UIControlEventValueChanged];
    self.accessoryView = _toggle;
  }
  return self;
}

- (void)showSwitch:(const Content::Switch&)option {
  UIListContentConfiguration* configuration = UIListContentConfiguration.subtitleCellConfiguration;
  configuration.text = textFrom(option.title);
  configuration.secondaryText = textFrom(option.note);
  configuration.secondaryTextProperties.color = UIColor.secondaryLabelColor;
  configuration.textToSecondaryTextVerticalPadding = 4;
  self.contentConfiguration = configuration;
  self.toggle.on = option.on;
  self.toggle.accessibilityLabel = configuration.text;
}

- (void)flipped {
  if (self.changed != nil) self.changed(self.toggle.isOn);
}

@end

#pragma mark - StowPanelController

/// The table of the panel's sections.
STOW_RUNTIME_NAME(StowPanelController)
@interface StowPanelController : UITableViewController
- (instancetype)initWithModel:(std::shared_ptr<StowModel>)model
                   formatters:(const corvelstow::platform::Formatters&)formatters;
@end

@interface StowPanelController () {
  /// The panel model: what the sections say, and the actions they call.
  std::shared_ptr<StowModel> _model;
  const corvelstow::platform::Formatters* _formatters;
  /// The panel as the engine decided it at the model's last change.
  Content _content;
  /// The observation of every change of the model.
  corvelstow::StowObservation _observation;
}
/// The toolbar button that closes the panel.
@property(nonatomic, readonly) UIBarButtonItem* doneButton;
@end

@implementation StowPanelController

#pragma mark - Lifecycle

- (instancetype)initWithModel:(std::shared_ptr<StowModel>)model
                   formatters:(const corvelstow::platform::Formatters&)formatters {
  if ((self = [super initWithStyle:UITableViewStyleInsetGrouped])) {
    _model = std::move(model);
    _formatters = &formatters;
    _doneButton = [[UIBarButtonItem alloc] initWithTitle:@""
                                                   style:UIBarButtonItemStyleDone
                                                  target:self
                                                  action:@selector(done)];
    self.navigationItem.rightBarButtonItem = _doneButton;
    self.navigationItem.largeTitleDisplayMode = UINavigationItemLargeTitleDisplayModeNever;
  }
  return self;
}

- (void)viewDidLoad {
  [super viewDidLoad];
  UITableView* table = self.tableView;
  for (NSString* identifier in @[ kTextCell, kValueCell, kButtonCell, kChoiceCell ]) {
    [table registerClass:UITableViewCell.class forCellReuseIdentifier:identifier];
  }
  [table registerClass:StowHeaderCell.class forCellReuseIdentifier:kHeaderCell];
  [table registerClass:StowProgressCell.class forCellReuseIdentifier:kProgressCell];
  [table registerClass:StowSwitchCell.class forCellReuseIdentifier:kSwitchCell];
  [table registerClass:UITableViewHeaderFooterView.class
      forHeaderFooterViewReuseIdentifier:kSectionHeader];

  __weak StowPanelController* weakSelf = self;
  _observation = corvelstow::StowObservation(
      _model,
      [weakSelf](StowModel::Field, const corvelstow::StowAnimation&) { [weakSelf reload]; });
  [self reload];
}

- (StowPanel*)panel {
  return (StowPanel*)self.navigationController;
}

#pragma mark - Content

// Asks the engine for the panel again and draws what changed: only the rows whose contents
// changed when that is all (the progress row while work runs), so that the cells stay and a
// VoiceOver user's focus with them; otherwise the whole table.
- (void)reload {
  std::optional<std::vector<corvelstow::StowRowPosition>> changed;
  apple::catchingAll([self, &changed] {
    Content content = corvelstow::panelContent(*_model, *_formatters, corvelstow::currentDate());
    changed = corvelstow::changedRows(_content, content);
    _content = std::move(content);
  });
  self.navigationItem.title = textFrom(_content.title);
  self.doneButton.title = textFrom(_content.doneLabel);
  if (!self.isViewLoaded) return;
  UITableView* table = self.tableView;
  if (!changed || table.window == nil || table.hasUncommittedUpdates) {
    [table reloadData];
    return;
  }
  if (changed->empty()) return;
  NSMutableArray<NSIndexPath*>* rows = [NSMutableArray arrayWithCapacity:changed->size()];
  for (const corvelstow::StowRowPosition& position : *changed) {
    [rows addObject:[NSIndexPath indexPathForRow:static_cast<NSInteger>(position.row)
                                       inSection:static_cast<NSInteger>(position.section)]];
  }
  [table reconfigureRowsAtIndexPaths:rows];
}

- (const Content::Row*)rowAt:(NSIndexPath*)indexPath {
  auto section = static_cast<std::size_t>(indexPath.section);
  auto row = static_cast<std::size_t>(indexPath.row);
  if (section >= _content.sections.size() || row >= _content.sections[section].rows.size()) {
    return nullptr;
  }
  return &_content.sections[section].rows[row];
}

#pragma mark - UITableViewDataSource

- (NSInteger)numberOfSectionsInTableView:(UITableView*)tableView {
  return static_cast<NSInteger>(_content.sections.size());
}

- (NSInteger)tableView:(UITableView*)tableView numberOfRowsInSection:(NSInteger)section {
  return static_cast<NSInteger>(_content.sections[static_cast<std::size_t>(section)].rows.size());
}

- (UITableViewCell*)tableView:(UITableView*)tableView
        cellForRowAtIndexPath:(NSIndexPath*)indexPath {
  const Content::Row& row = *[self rowAt:indexPath];
  if (const auto* header = std::get_if<Content::Header>(&row)) {
    StowHeaderCell* cell = [tableView dequeueReusableCellWithIdentifier:kHeaderCell
                                                           forIndexPath:indexPath];
    [cell showHeader:*header];
    return cell;
  }
  if (const auto* progress = std::get_if<Content::Progress>(&row)) {
    StowProgressCell* cell = [tableView dequeueReusableCellWithIdentifier:kProgressCell
                                                             forIndexPath:indexPath];
    [cell showProgress:*progress];
    return cell;
  }
  if (const auto* option = std::get_if<Content::Switch>(&row)) {
    StowSwitchCell* cell = [tableView dequeueReusableCellWithIdentifier:kSwitchCell
                                                           forIndexPath:indexPath];
    [cell showSwitch:*option];
    __weak StowPanelController* weakSelf = self;
    StowPanelAction action = option->action;
    cell.changed = ^(BOOL on) {
      [weakSelf toggle:action on:on];
    };
    return cell;
  }
  if (const auto* text = std::get_if<Content::Text>(&row))
    return [self textCell:*text at:indexPath];
  if (const auto* value = std::get_if<Content::Value>(&row)) {
    UITableViewCell* cell = [tableView dequeueReusableCellWithIdentifier:kValueCell
                                                            forIndexPath:indexPath];
    UIListContentConfiguration* configuration = UIListContentConfiguration.valueCellConfiguration;
    configuration.text = textFrom(value->label);
    configuration.secondaryText = textFrom(value->value);
    cell.contentConfiguration = configuration;
    cell.selectionStyle = UITableViewCellSelectionStyleNone;
    return cell;
  }
  if (const auto* button = std::get_if<Content::Button>(&row)) {
    return [self buttonCell:*button at:indexPath];
  }
  return [self choiceCell:std::get<Content::Choice>(row) at:indexPath];
}

- (UITableViewCell*)textCell:(const Content::Text&)text at:(NSIndexPath*)indexPath {
  UITableViewCell* cell = [self.tableView dequeueReusableCellWithIdentifier:kTextCell
                                                               forIndexPath:indexPath];
  UIListContentConfiguration* configuration = UIListContentConfiguration.cellConfiguration;
  configuration.text = textFrom(text.text);
  configuration.image = symbolFrom(text.symbol);
  switch (text.style) {
    case Content::TextStyle::plain:
      break;
    case Content::TextStyle::note:
      configuration.textProperties.font =
          [UIFont preferredFontForTextStyle:UIFontTextStyleFootnote];
      configuration.textProperties.color = UIColor.secondaryLabelColor;
      configuration.imageProperties.tintColor = UIColor.secondaryLabelColor;
      break;
    case Content::TextStyle::warning:
      configuration.textProperties.color = UIColor.systemRedColor;
      configuration.imageProperties.tintColor = UIColor.systemRedColor;
      break;
  }
  cell.contentConfiguration = configuration;
  cell.selectionStyle = UITableViewCellSelectionStyleNone;
  return cell;
}

- (UITableViewCell*)buttonCell:(const Content::Button&)button at:(NSIndexPath*)indexPath {
  UITableViewCell* cell = [self.tableView dequeueReusableCellWithIdentifier:kButtonCell
                                                               forIndexPath:indexPath];
  UIListContentConfiguration* configuration = UIListContentConfiguration.cellConfiguration;
  configuration.text = textFrom(button.label);
  configuration.image = symbolFrom(button.symbol);
  UIColor* color = button.enabled ? self.view.tintColor : UIColor.tertiaryLabelColor;
  configuration.textProperties.color = color;
  configuration.imageProperties.tintColor = color;
  cell.contentConfiguration = configuration;
  cell.selectionStyle =
      button.enabled ? UITableViewCellSelectionStyleDefault : UITableViewCellSelectionStyleNone;
  cell.accessibilityTraits =
      UIAccessibilityTraitButton |
      (button.enabled ? UIAccessibilityTraitNone : UIAccessibilityTraitNotEnabled);
  return cell;
}

- (UITableViewCell*)choiceCell:(const Content::Choice&)choice at:(NSIndexPath*)indexPath {
  UITableViewCell* cell = [self.tableView dequeueReusableCellWithIdentifier:kChoiceCell
                                                               forIndexPath:indexPath];
  UIListContentConfiguration* configuration = UIListContentConfiguration.subtitleCellConfiguration;
  configuration.text = textFrom(choice.title);
  configuration.secondaryText = textFrom(choice.description);
  configuration.secondaryTextProperties.color = UIColor.secondaryLabelColor;
  configuration.textToSecondaryTextVerticalPadding = 4;
  configuration.image = symbolFrom(choice.symbol);
  cell.contentConfiguration = configuration;
  cell.selectionStyle = UITableViewCellSelectionStyleDefault;
  cell.accessibilityTraits =
      UIAccessibilityTraitButton |
      (choice.selected ? UIAccessibilityTraitSelected : UIAccessibilityTraitNone);
  return cell;
}

#pragma mark - Section headings

- (nullable UIView*)tableView:(UITableView*)tableView viewForHeaderInSection:(NSInteger)index {
  const Content::Section& section = _content.sections[static_cast<std::size_t>(index)];
  if (section.title.empty()) return nil;
  UITableViewHeaderFooterView* view =
      [tableView dequeueReusableHeaderFooterViewWithIdentifier:kSectionHeader];
  UIListContentConfiguration* configuration = UIListContentConfiguration.groupedHeaderConfiguration;
  configuration.text = textFrom(section.title);
  configuration.image = symbolFrom(section.symbol);
  view.contentConfiguration = configuration;
  return view;
}

#pragma mark - UITableViewDelegate

- (BOOL)tableView:(UITableView*)tableView shouldHighlightRowAtIndexPath:(NSIndexPath*)indexPath {
  const Content::Row* row = [self rowAt:indexPath];
  return row != nullptr && isActionable(*row);
}

- (void)tableView:(UITableView*)tableView didSelectRowAtIndexPath:(NSIndexPath*)indexPath {
  [tableView deselectRowAtIndexPath:indexPath animated:YES];
  const Content::Row* row = [self rowAt:indexPath];
  if (row == nullptr || !isActionable(*row)) return;
  if (const auto* button = std::get_if<Content::Button>(row)) {
    [self perform:button->action];
  } else if (const auto* choice = std::get_if<Content::Choice>(row)) {
    corvelstow::StowRestoreScope scope = choice->scope;
    apple::catchingAll([self, scope] { _model->setScope(scope); });
  }
}

#pragma mark - Actions

- (void)perform:(StowPanelAction)action {
  StowPanel* panel = self.panel;
  switch (action) {
    case StowPanelAction::backUp: {
      // Once the backup is written, the share sheet opens for it by itself.
      __weak StowPanel* weakPanel = panel;
      apple::catchingAll([self, weakPanel] {
        _model->backUp(
            [weakPanel](const std::filesystem::path& archive) { [weakPanel shareFile:archive]; });
      });
      break;
    }
    case StowPanelAction::restore:
      [panel pickBackup];
      break;
    case StowPanelAction::shareLast:
      if (const auto& last = _model->lastExport()) [panel shareFile:*last];
      break;
    case StowPanelAction::prepareRestore:
      apple::catchingAll([self] { _model->prepareRestore(); });
      break;
    case StowPanelAction::cancelPreview:
      apple::catchingAll([self] { _model->cancelPreview(); });
      break;
    case StowPanelAction::closeApp:
      apple::catchingAll([self] { _model->closeApp(); });
      break;
    case StowPanelAction::undoAndCloseApp:
      apple::catchingAll([self] { _model->undoAndCloseApp(); });
      break;
    case StowPanelAction::chooseScope:
    case StowPanelAction::includeCaches:
    case StowPanelAction::showOnLaunch:
      break;  // a choice or a switch, not a button
  }
}

- (void)toggle:(StowPanelAction)action on:(BOOL)on {
  apple::catchingAll([self, action, on] {
    if (action == StowPanelAction::includeCaches) _model->setIncludeCaches(on);
    if (action == StowPanelAction::showOnLaunch) _model->setShowOnLaunch(on);
  });
}

- (void)done {
  apple::catchingAll([self] { _model->closePanel(); });
}

@end

#pragma mark - StowPanel

@interface StowPanel () {
  /// The panel model, for the picked file.
  std::shared_ptr<StowModel> _model;
}
/// The document picker while it is shown.
@property(nonatomic, nullable) StowDocumentPicker* picker;
@property(nonatomic, readwrite) BOOL picking;
@property(nonatomic, readwrite, nullable) StowShareItem* sharing;
@end

@implementation StowPanel

#pragma mark - Lifecycle

- (instancetype)initWithModel:(std::shared_ptr<StowModel>)model
                   formatters:(const corvelstow::platform::Formatters&)formatters {
  StowPanelController* content = [[StowPanelController alloc] initWithModel:model
                                                                 formatters:formatters];
  if ((self = [super initWithRootViewController:content])) {
    _model = std::move(model);
    // Closed through "Done" only.
    self.modalInPresentation = YES;
  }
  return self;
}

- (nullable instancetype)initWithCoder:(NSCoder*)coder {
  std::abort();
}

#pragma mark - Accessibility

// VoiceOver's escape gesture (two fingers in a Z) closes the panel, as "Done" does.
- (BOOL)accessibilityPerformEscape {
  apple::catchingAll([self] { _model->closePanel(); });
  return YES;
}

#pragma mark - Orientations

// The panel turns as the app does: its presenter asks the app.
- (UIInterfaceOrientationMask)supportedInterfaceOrientations {
  UIViewController* presenter = self.presentingViewController;
  return presenter != nil ? presenter.supportedInterfaceOrientations
                          : [super supportedInterfaceOrientations];
}

#pragma mark - The document picker

- (void)pickBackup {
  if (self.presentedViewController != nil) return;
  __weak StowPanel* weakSelf = self;
  self.picker = [[StowDocumentPicker alloc] initWithDone:^(NSURL* _Nullable location) {
    [weakSelf picked:location];
  }];
  self.picking = YES;
  [self presentViewController:[self.picker makeController] animated:YES completion:nil];
}

- (void)picked:(nullable NSURL*)location {
  self.picking = NO;
  self.picker = nil;
  if (location == nil) return;
  apple::catchingAll([self, location] {
    apple::rememberPickedFile(location);
    // The picker opened a copy of the user's file for the app (asCopy): the model removes it
    // once it is of no more use.
    if (std::optional<std::filesystem::path> path = apple::pathFrom(location.path)) {
      _model->chooseBackup(*path, true);
    }
  });
}

#pragma mark - The share sheet

- (void)shareFile:(const std::filesystem::path&)file {
  NSString* path = apple::nsStringFrom(file.native());
  if (path == nil) return;
  StowShareItem* item = [[StowShareItem alloc] initWithURL:[NSURL fileURLWithPath:path]];
  if ([item isEqual:self.sharing] || self.presentedViewController != nil) return;
  self.sharing = item;
  __weak StowPanel* weakSelf = self;
  UIActivityViewController* sheet =
      [[[StowShareSheet alloc] initWithURL:item.url] makeControllerWithDone:^{
        weakSelf.sharing = nil;
      }];
  // On an iPad the sheet is a popover, which needs a place to point at.
  UIPopoverPresentationController* popover = sheet.popoverPresentationController;
  popover.sourceView = self.view;
  popover.sourceRect =
      CGRectMake(CGRectGetMidX(self.view.bounds), CGRectGetMidY(self.view.bounds), 0, 0);
  popover.permittedArrowDirections = 0;
  [self presentViewController:sheet animated:YES completion:nil];
}

@end
