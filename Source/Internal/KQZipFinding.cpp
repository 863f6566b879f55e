#include "KQZipFinding.h"

#include <array>
#include <string_view>

#include "../Platform/NSString.h"

namespace {

// How the two numbers are shown.
enum Numbers : std::uint8_t { None, First, Both, HexadecimalBoth };

struct Form {
  KQZipProblemKind kind;
  Numbers numbers;
  std::string_view text;
};

using Kind = KQZipProblemKind;

constexpr std::array forms = {
    Form{Kind::EndsEarly, First, "the archive ends early, at offset %llu"},
    Form{Kind::EndsEarly, First, "the archive ends early, inside the header of an entry at offset %llu"},
    Form{Kind::EndsEarly, First, "the archive ends early, inside its central directory, at offset %llu"},
    Form{Kind::EndsEarly, First, "the archive has no central directory; its entries end at offset %llu"},
    Form{Kind::EndRecords, Both, "the comment of the archive has %llu bytes, its end record says %llu"},
    Form{Kind::EndRecords, First, "the Zip64 locator at offset %llu leads to no Zip64 end record"},
    Form{Kind::EndRecords, None, "the end records contradict each other"},
    Form{Kind::EndRecords, First, "the end records lead to no central directory; they say offset %llu"},
    Form{Kind::EndRecords, Both, "the end records count %llu entries, the central directory has %llu"},
    Form{Kind::Directory, First, "the central directory is damaged at offset %llu"},
    Form{Kind::Split, First, "the archive is split, and this is part %llu of it"},
    Form{Kind::UnknownBytes, Both, "unknown bytes from offset %llu to offset %llu"},
    Form{Kind::UnknownBytes, First, "unknown bytes after the end of the archive, from offset %llu"},
    Form{Kind::Compressed, None, "is compressed; only stored entries can be read"},
    Form{Kind::Encrypted, None, "is encrypted"},
    Form{Kind::Split, None, "is on another part of the split archive"},
    Form{Kind::Overlap, None, "shares bytes with another entry"},
    Form{Kind::Overlap, First, "does not end before offset %llu, where something else begins"},
    Form{Kind::SameName, None, "has the name of a later entry, which counts"},
    Form{Kind::Header, First, "has no header at offset %llu"},
    Form{Kind::EndsEarly, None, "ends inside its header"},
    Form{Kind::EndsEarly, Both, "ends after %llu of %llu bytes"},
    Form{Kind::Header, First, "has another name in its header at offset %llu"},
    Form{Kind::Header, Both, "size is %llu in the central directory, header says %llu"},
    Form{Kind::Header, Both, "size once unpacked is %llu in the central directory, header says %llu"},
    Form{Kind::Header, Both, "compression method is %llu in the central directory, header says %llu"},
    Form{Kind::Header, HexadecimalBoth, "flags are %x in the central directory, header says %x"},
    Form{Kind::Header, HexadecimalBoth, "CRC-32 is %x in the central directory, header says %x"},
    Form{Kind::Data, HexadecimalBoth, "CRC-32 is %x, header says %x"},
    Form{Kind::Directory, None, "is not in the central directory"},
    Form{Kind::UnknownBytes, First, "%llu bytes stand in front of the first record"},
};

const Form& formOf(const KQZipFinding& finding) { return forms[static_cast<std::size_t>(finding.code)]; }

}  // namespace

std::string KQZipTextOf(const KQZipFinding& finding) {
  const Form& form = formOf(finding);
  const auto number =
      form.numbers == HexadecimalBoth ? KQ::NSFormatArgument::hexadecimal : KQ::NSFormatArgument::decimal;
  if (form.numbers == None) return std::string(form.text);
  if (form.numbers == First) return KQ::stringWithFormat(form.text, {number(finding.first)});
  return KQ::stringWithFormat(form.text, {number(finding.first), number(finding.second)});
}

KQZipProblem KQZipProblemOf(const KQZipFinding& finding, const KQZipArchiveIndex& index) {
  KQZipProblem problem{formOf(finding).kind, std::nullopt, KQZipTextOf(finding)};
  std::string room;
  if (finding.entry != KQZipFinding::noEntry) problem.entry = index.name(index[finding.entry], room);
  return problem;
}
