#include "virtual_board/camera/faults.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

namespace varnel::board {

namespace {

using Failure = Faults::Failure;

/// A number or a name of the system's errors, or a negative number as it is.
std::optional<int> ParseErrno(const std::string& word) {
  if (word.size() > 1 && word[0] == '-') return std::atoi(word.c_str());
  for (int error = 1; error < 134; ++error) {
    const char* name = ::strerrorname_np(error);
    if (std::to_string(error) == word || (name != nullptr && word == name)) return error;
  }
  return std::nullopt;
}

uint32_t NumberOr(std::istream& in, uint32_t fallback) {
  uint32_t number = 0;
  return in >> number ? number : fallback;
}

std::optional<Failure> ParseFailure(std::istream& in) {
  Failure failure;
  std::string error;
  in >> failure.request >> error;
  const std::optional<int> code = ParseErrno(error);
  if (!code) return std::nullopt;
  failure.error = *code;
  failure.count = NumberOr(in, 0);
  failure.skip = NumberOr(in, 0);
  return failure;
}

std::string Format(const Failure& failure) {
  std::ostringstream out;
  out << "fail " << failure.request << ' ' << failure.error << ' ' << failure.count << ' '
      << failure.skip;
  return out.str();
}

std::optional<Failure> FailureOfLine(const std::string& line) {
  std::istringstream in(line);
  std::string word;
  return in >> word && word == "fail" ? ParseFailure(in) : std::nullopt;
}

void AddFailure(Faults& faults, std::istream& in) {
  if (const auto failure = ParseFailure(in)) faults.failures.push_back(*failure);
}

using Setter = std::function<void(Faults&, std::istream&)>;
const std::map<std::string, Setter>& Setters() {
  static const std::map<std::string, Setter> setters = {
      {"unplug", [](Faults& f, std::istream&) { f.unplug = true; }},
      {"stall", [](Faults& f, std::istream&) { f.stall = true; }},
      {"no-capture", [](Faults& f, std::istream&) { f.no_capture = true; }},
      {"no-streaming", [](Faults& f, std::istream&) { f.no_streaming = true; }},
      {"error-buffer", [](Faults& f, std::istream& in) { f.error_bytes = NumberOr(in, 0); }},
      {"index", [](Faults& f, std::istream& in) { f.index = NumberOr(in, 0); }},
      {"buffers", [](Faults& f, std::istream& in) { f.buffers = NumberOr(in, 0); }},
      {"formats", [](Faults& f, std::istream& in) { f.formats = NumberOr(in, 0); }},
      {"size",
       [](Faults& f, std::istream& in) {
         const uint32_t width = NumberOr(in, 0);
         f.size = std::pair(width, NumberOr(in, 0));
       }},
      {"rate", [](Faults& f, std::istream& in) { f.rate = NumberOr(in, 0); }},
      {"fail", AddFailure},
  };
  return setters;
}

/// What is left of a line after a call that it counts; empty when nothing is.
std::string CountDownLine(Failure failure) {
  if (failure.skip > 0) {
    --failure.skip;
  } else if (--failure.count == 0) {
    return {};
  }
  return Format(failure) + "\n";
}

bool Counts(const std::optional<Failure>& failure, const std::string& request) {
  return failure && failure->request == request && (failure->count > 0 || failure->skip > 0);
}

}  // namespace

const Failure* Faults::Find(const std::string& request) const {
  for (const Failure& failure : failures) {
    if (failure.request == request) return &failure;
  }
  return nullptr;
}

Faults Faults::Parse(const std::string& text) {
  Faults faults;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream in(line.substr(0, line.find('#')));
    std::string word;
    in >> word;
    if (const auto setter = Setters().find(word); setter != Setters().end()) {
      setter->second(faults, in);
    }
  }
  return faults;
}

std::string Faults::CountDown(const std::string& text, const std::string& request) {
  std::string result;
  bool done = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const auto failure = FailureOfLine(line.substr(0, line.find('#')));
    if (done || !Counts(failure, request)) {
      result += line + "\n";
      continue;
    }
    result += CountDownLine(*failure);
    done = true;
  }
  return result;
}

}  // namespace varnel::board
