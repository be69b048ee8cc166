#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace nimbra::ctl {

/// Lays out the help: lines that fit a page, and in a list of commands the first sentence of each.
class HelpFormatter : public CLI::Formatter
{
public:
    HelpFormatter();
    std::string make_description(const CLI::App *app) const override;
    std::string make_subcommand(const CLI::App *sub) const override;
    /// One command of the help of all; of a group, all its commands instead.
    std::string make_expanded(const CLI::App *sub) const override;
    std::string make_option_desc(const CLI::Option *option) const override;
};

} // namespace nimbra::ctl
