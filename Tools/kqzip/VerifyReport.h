#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "ArchiveScan.h"
#include "Json.h"
#include "ProgressLine.h"
#include "StandardOutput.h"

namespace Tool {

/// Tells on standard output what a verification finds, as it is found and with the progress line out of the
/// way. That nobody reads it is no failure: the exit status still says whether the archive is right.
class VerifyReport {
 public:
  explicit VerifyReport(ProgressLine& line) : line_(line) {}
  virtual ~VerifyReport() = default;
  VerifyReport(const VerifyReport&) = delete;
  VerifyReport& operator=(const VerifyReport&) = delete;

  /// Tells of a problem and counts it.
  void add(const Problem& problem);

  /// How many problems there were.
  std::uint64_t problems() const { return problems_; }

  /// What to do about the first problem for which that is known; empty when there is none.
  const std::string& advice() const { return advice_; }

  /// Ends the report of a verification that has come to its end.
  virtual void end() = 0;

  /// Ends the report of one that has not, for the reason in `text`.
  virtual void abandon(const std::string& text) = 0;

 protected:
  virtual void tell(const Problem& problem) = 0;

  /// What is to be written to, by what print() calls.
  StandardOutput& output() { return output_; }

  /// Calls `write`, and lets what it wrote be seen.
  void print(const std::function<void()>& write);

 private:
  ProgressLine& line_;
  StandardOutput output_;
  std::uint64_t problems_ = 0;
  std::string advice_;
};

/// A line for each problem, and at the end `summary` if there was none.
class VerifyLines : public VerifyReport {
 public:
  VerifyLines(ProgressLine& line, std::string summary);
  void end() override;
  void abandon(const std::string& text) override;

 private:
  void tell(const Problem& problem) override;

  std::string summary_;
};

/// One JSON document.
class VerifyDocument : public VerifyReport {
 public:
  VerifyDocument(ProgressLine& line, const ArchiveScan& archive);
  void end() override;
  void abandon(const std::string& text) override;

 private:
  void tell(const Problem& problem) override;
  void close(bool isRight);

  Json json_{output()};
};

}  // namespace Tool
