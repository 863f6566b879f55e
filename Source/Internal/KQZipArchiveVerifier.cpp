#include "KQZipArchiveVerifier.h"

#include "../Platform/NSString.h"
#include "KQZipError.h"
#include "KQZipReportState.h"

bool KQZipVerifyArchive(const KQZipArchiveState& archive, const KQZipVerifyOptions& /*options*/,
                        KQZipReport& report, KQ::NSErrorSlot error) {
  KQZipReportState& state = KQZipReportState::begun(report);
  state.entries = archive.index.sizeOfCounting();
  for (const KQZipFinding& finding : archive.findings)
    state.problems.push_back(KQZipProblemOf(finding, archive.index));
  if (state.problems.empty()) return true;
  return KQZipFail(error, KQZipErrorProblemsFound,
                   KQ::stringWithFormat("problems found: %llu, entries with problems: %llu",
                                        {KQ::NSFormatArgument::decimal(state.problems.size()),
                                         KQ::NSFormatArgument::decimal(state.entriesWithProblems)}));
}
