#pragma once

#include <CLI/CLI.hpp>

#include <cstddef>
#include <string>

namespace nimbra::ctl {

/// Formats the help: lines fit the terminal, or the environment variable COLUMNS, and are at most
/// 100 characters long; a list of commands has the first sentence of each; required options are
/// marked.
class HelpFormatter : public CLI::Formatter
{
public:
    HelpFormatter();
    [[nodiscard]] std::string make_description(const CLI::App *app) const override;
    [[nodiscard]] std::string make_footer(const CLI::App *app) const override;
    [[nodiscard]] std::string make_subcommand(const CLI::App *sub) const override;
    /// One command in the help of all; for a group, all its commands instead.
    [[nodiscard]] std::string make_expanded(const CLI::App *sub) const override;
    [[nodiscard]] std::string make_option_opts(const CLI::Option *option) const override;
    [[nodiscard]] std::string make_option_desc(const CLI::Option *option) const override;

private:
    std::size_t width_;
};

} // namespace nimbra::ctl
