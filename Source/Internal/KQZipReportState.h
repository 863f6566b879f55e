#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "../Archive/KQZipReport.h"

/// What a report holds. Whoever does the job fills it, on the calling thread.
struct KQZipReportState {
  std::vector<KQZipProblem> problems;     ///< In order.
  std::vector<KQZipProblem> remarks;      ///< In order.
  std::uint64_t entries = 0;              ///< Entries the job is about.
  std::uint64_t entriesWithProblems = 0;  ///< To be counted once for each entry.
  std::uint64_t bytes = 0;                ///< Bytes of their data.

  /// The state of a report, emptied for a new job.
  static KQZipReportState& begun(KQZipReport& report) {
    if (!report.state_) report.state_ = std::make_unique<KQZipReportState>();
    *report.state_ = {};
    return *report.state_;
  }

  /// Adds all the problems of one entry, if there are any.
  void addEntry(std::vector<KQZipProblem> found) {
    if (found.empty()) return;
    ++entriesWithProblems;
    for (KQZipProblem& problem : found) problems.push_back(std::move(problem));
  }
};
