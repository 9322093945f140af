// SPDX-License-Identifier: Apache-2.0
#include "ClaudeHistory.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>

#include "Support/Instant.h"

namespace vimbrel {
namespace {

using Random = std::mt19937_64;

std::size_t between(Random& random, std::size_t least, std::size_t most) {
  return std::uniform_int_distribution<std::size_t>(least, most)(random);
}

/// Text with the quotes, escapes and line breaks of source code.
std::string text(Random& random, std::size_t length) {
  static const std::string source = [] {
    std::string made;
    Random fixed(7);
    const char* words[] = {"return ",        "const auto ", "std::string ", "if (", ") {\\n  ", "}\\n",
                           "\\\"name\\\": ", "value",       " = ",          "0x1f", ";\\n",     "// ",
                           "über ",          "\\t"};
    while (made.size() < 1U << 20U) made += words[between(fixed, 0, std::size(words) - 1)];
    return made;
  }();
  // Starts behind an escape's first character would make invalid JSON.
  auto start = source.find(' ', between(random, 0, source.size() - length - 200));
  auto end = source.find(' ', start + length);
  return source.substr(start, end - start);
}

std::string number(std::size_t value) { return std::to_string(value); }

class Conversation {
 public:
  Conversation(std::string session, std::string directory, Random& random)
      : session_(std::move(session)), directory_(std::move(directory)), random_(random) {}

  /// One prompt, some tool use, and the answer's blocks.
  std::string turn() {
    std::string lines =
        line("user", R"("message":{"role":"user","content":")" + text(random_, prompt()) + "\"}");
    const auto message = "msg_01" + number(random_());
    const auto blocks = between(random_, 1, 3);
    const auto output = between(random_, 40, 2500);
    for (std::size_t block = 1; block <= blocks; ++block) {
      const auto counted = block == blocks ? output : std::size_t{1};
      lines += line("assistant",
                    R"("message":{"model":"claude-opus-5","id":")" + message +
                        R"(","type":"message","role":"assistant","content":[{"type":"text","text":")" +
                        text(random_, between(random_, 50, 1200)) +
                        R"("}],"stop_reason":null,"stop_sequence":null,"usage":{"input_tokens":)" +
                        number(between(random_, 1, 40)) + R"(,"cache_creation_input_tokens":)" +
                        number(between(random_, 0, 9000)) + R"(,"cache_read_input_tokens":)" +
                        number(between(random_, 10000, 180000)) +
                        R"(,"cache_creation":{"ephemeral_5m_input_tokens":0,"ephemeral_1h_input_tokens":0},)"
                        R"("output_tokens":)" +
                        number(counted) + R"(,"service_tier":"standard"}},"requestId":"req_)" +
                        number(random_()) + "\"");
    }
    lines += line("user", R"("message":{"role":"user","content":[{"type":"tool_result","content":")" +
                              text(random_, result()) + R"("}]},"toolUseResult":{"stdout":")" +
                              text(random_, result()) + "\"}");
    return lines;
  }

 private:
  std::size_t prompt() { return between(random_, 40, 1500); }
  /// Most results are short and a few are whole files.
  std::size_t result() {
    return between(random_, 0, 9) == 0 ? between(random_, 10000, 60000) : between(random_, 200, 6000);
  }

  std::string line(const std::string& type, const std::string& body) {
    time_ += static_cast<double>(between(random_, 1, 40000)) / 1000;
    return R"({"parentUuid":"8c1f)" + number(random_()) +
           R"(","isSidechain":false,"userType":"external","cwd":")" + directory_ + R"(","sessionId":")" +
           session_ + R"(","version":"2.1.4","gitBranch":"main","type":")" + type + "\"," + body +
           R"(,"uuid":"8c1f)" + number(random_()) + R"(","timestamp":")" +
           formatIso8601(instantFromUnixSeconds(time_), true) + "\"}\n";
  }

  std::string session_;
  std::string directory_;
  Random& random_;
  double time_ = 1767225600;  // 2026-01-01
};

}  // namespace

void writeClaudeHistory(const std::string& root, const ClaudeHistoryShape& shape) {
  Random random(shape.seed);
  std::uint64_t written = 0;
  for (std::size_t i = 0; i < shape.files; ++i) {
    const auto project = "-home-user-project-" + number(i % shape.directories);
    const auto directory = root + "/projects/" + project;
    std::filesystem::create_directories(directory);
    const auto session = "5e551011-0000-4000-8000-" + number(100000000000 + i);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        std::fopen((directory + "/" + session + ".jsonl").c_str(), "we"), std::fclose);
    if (!file) throw std::runtime_error("cannot write the history below " + root);
    Conversation conversation(session, "/home/user/project-" + number(i % shape.directories), random);
    // What is left is shared by the files that are left, so that the sum comes out.
    const auto share = (shape.bytes - std::min(written, shape.bytes)) / (shape.files - i);
    for (std::uint64_t size = 0; size < share;) {
      const auto lines = conversation.turn();
      if (std::fwrite(lines.data(), 1, lines.size(), file.get()) != lines.size()) {
        throw std::runtime_error("cannot write the history below " + root);
      }
      size += lines.size();
      written += lines.size();
    }
  }
}

}  // namespace vimbrel
