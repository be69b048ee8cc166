// The main program of the system tests: runs them in a sandbox, in which the panel's paths and
// ports are free. Listing the tests needs no sandbox.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

[[noreturn]] void EnterSandbox(char **arguments)
{
    std::vector<char *> command;
    std::string sandbox = NIMBRA_SANDBOX_PATH;
    std::string keepBuild = "--keep=" NIMBRA_BUILD_DIRECTORY;
    std::string keepSource = "--keep=" NIMBRA_SOURCE_DIRECTORY;
    std::string end = "--";
    for (std::string *word : {&sandbox, &keepBuild, &keepSource, &end})
        command.push_back(word->data());
    for (char **argument = arguments; *argument != nullptr; ++argument)
        command.push_back(*argument);
    command.push_back(nullptr);
    execv(command[0], command.data());
    std::perror(command[0]);
    std::exit(EXIT_FAILURE);
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<char *> given(argv, argv + argc + 1);
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests) && std::getenv("NIMBRA_SANDBOX") == nullptr)
        EnterSandbox(const_cast<char **>(given.data()));
    std::signal(SIGPIPE, SIG_IGN);
    const int status = RUN_ALL_TESTS();
    if (::testing::GTEST_FLAG(list_tests) ||
        ::testing::UnitTest::GetInstance()->test_to_run_count() > 0)
        return status;
    std::fprintf(stderr,
                 "There is no such test. Build again, so that the tests are listed again.\n");
    return EXIT_FAILURE;
}
