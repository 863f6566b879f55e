#include "VerifyReport.h"

#include <utility>

#include "Colour.h"
#include "Message.h"

namespace Tool {

void VerifyReport::add(const Problem& problem) {
  ++problems_;
  if (advice_.empty()) advice_ = problem.advice;
  tell(problem);
}

void VerifyReport::print(const std::function<void()>& write) {
  line_.eraseWhile([this, &write] {
    try {
      write();
      output_.flush();
    } catch (const OutputClosed&) {
      // Nobody reads it any more.
    }
  });
}

VerifyLines::VerifyLines(ProgressLine& line, std::string summary)
    : VerifyReport(line), summary_(std::move(summary)) {}

void VerifyLines::tell(const Problem& problem) {
  const std::string entry = problem.entry ? escapedName(*problem.entry) + ": " : "";
  print([&] { output().write(entry + coloured(problem.text, Colour::Red, Stream::Output) + "\n"); });
}

void VerifyLines::end() {
  if (problems() != 0 || summary_.empty()) return;
  print([this] {
    output().write(summary_ + ": " + coloured("all right", Colour::Green, Stream::Output) + "\n");
  });
}

// The message on standard error says all there is to say.
void VerifyLines::abandon(const std::string& /*text*/) {}

VerifyDocument::VerifyDocument(ProgressLine& line, const ArchiveScan& archive) : VerifyReport(line) {
  print([&] {
    json_.beginObject();
    json_.addText("archive", archive.path());
    json_.addNumber("entries", archive.entries().size());
    json_.addNumber("bytes", archive.totalLength());
    json_.beginArray("problems");
  });
}

void VerifyDocument::tell(const Problem& problem) {
  print([&] { problem.addTo(json_); });
}

void VerifyDocument::end() { close(problems() == 0); }

void VerifyDocument::abandon(const std::string& text) {
  tell({std::nullopt, text});
  close(false);
}

void VerifyDocument::close(bool isRight) {
  print([&] {
    json_.endArray();
    json_.addFlag("ok", isRight);
    json_.endObject();
  });
}

}  // namespace Tool
