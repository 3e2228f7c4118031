#pragma once

#include <filesystem>
#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "backup/usage.h"
#include "ui/model.h"
#include "ui/panel_content.h"

namespace corvelstow::cli {

/// The command that presses a panel button or flips a switch, such as "corvelstow backup";
/// nothing for what a terminal has no command for (cancel, share).
std::optional<std::string> commandFor(const StowPanelContent::Row& row);

/// Draws the panel in the terminal: its sections in order with their texts, values and
/// switches, and each button as the command that presses it. `icon` is the app's icon file,
/// when one is found.
void printPanel(std::ostream& out, const StowPanelContent& panel,
                const std::optional<std::filesystem::path>& icon);

/// Draws the pill: its title, its subtitle and its button as the command that presses it.
/// Nothing for a hidden pill.
void printPill(std::ostream& out, const StowModel::Pill& pill);

/// The panel as data: its title and sections, each row with its kind and fields, buttons and
/// switches with their command.
nlohmann::json panelJson(const StowPanelContent& panel);

/// The pill as data: its state, and for a shown one what it draws.
nlohmann::json pillJson(const StowModel::Pill& pill);

nlohmann::json usageJson(const std::optional<StowUsage>& usage);

/// The first icon file of the bundle (--bundle) that is there, in the order the app tries them.
std::optional<std::filesystem::path> bundleIcon();

}  // namespace corvelstow::cli
