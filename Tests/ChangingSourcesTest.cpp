// Sources that change while the library packs them. The library does not look for that: it writes the CRC,
// the sizes and the data that it meets, each when its turn comes.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/ChangingSource.h"
#include "Support/FileMoments.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using namespace KQTest;

namespace {

class ChangingSources : public ::testing::TestWithParam<NamedMoment> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(AtEachMoment, ChangingSources, testing::ValuesIn(sourceMoments()),
                         [](const auto& moment) { return moment.param.name; });

TEST_P(ChangingSources, AnEntryHoldsWhatEachStepOfItsWritingMeets) {
  for (const SourceChange& change : sourceChanges()) {
    SCOPED_TRACE(change.name);
    const SourceTree tree;
    const std::string old = patternBytes(1048576 + 1234);
    KQZipFileWriter writer;
    writer.addFilePath(tree.file("a", "in front"), "a");
    writer.addFilePath(tree.file("b", old), "b");
    writer.addFilePath(tree.file("c", "behind"), "c");
    TestOutputStream stream;
    Error error = earlierError();
    const LogCapture log;
    {
      const AtFileMoment moment(tree / "b", fileMoment(GetParam().moment), [&] { change.apply(tree, "b"); });
      EXPECT_TRUE(writer.writeToStream(stream, &error));
      EXPECT_TRUE(moment.hasCome());
    }
    expectSameBytes(
        goldenArchive({SourceTree::entry("a", "in front"), changedEntry("b", old, GetParam().moment, change),
                       SourceTree::entry("c", "behind")}),
        stream.bytes);
    EXPECT_EQ(describe(earlierError()), describe(error));
    EXPECT_EQ(std::vector<std::string>(), log.lines());
  }
}
