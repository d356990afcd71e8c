// The tool as its user has it: the built program, an agent's directory, modules as processes.
#pragma once

#include <fstream>

#include <gmock/gmock.h>

#include "installation.h"

namespace tavipc::stage {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;
using Words = std::vector<std::string>;

class TavctlTest : public ::testing::Test {
  protected:
    TavctlTest() { place_.allow({"tavctl", "alpha", "beta"}); }
    // Expects that the tool ends with the status, and returns what it wrote.
    std::string expect(int status, Words words, std::string_view input = {}) const {
        words.insert(words.begin(), tool_);
        const Outcome outcome = run(words, input, {"TAV_LOG_LEVEL=1"});
        EXPECT_EQ(outcome.status, status)
            << testing::PrintToString(words) << outcome.output << outcome.errors;
        return outcome.output + outcome.errors;
    }
    std::unique_ptr<Process> start(const std::string &name) const {
        std::unique_ptr<Process> module(new Process(place_.start(name)));
        module->ask("open " + name, "opened ");
        return module;
    }
    const Installation place_{Installation::Setup{}};
    const std::string tool_ = place_.tool();
    const fs::path config_ = place_.config(), root_ = config_.parent_path(), sockets_ = place_.sockets();
};

} // namespace tavipc::stage
