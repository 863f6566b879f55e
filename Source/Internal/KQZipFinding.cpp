#include "KQZipFinding.h"

#include <array>
#include <string_view>

#include "../Platform/NSString.h"

namespace {

// How the two numbers are shown.
enum Numbers : std::uint8_t { None, First, Both, HexadecimalFirst, HexadecimalBoth };

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
    Form{Kind::EndRecords, Both, "the comment of the archive has %llu bytes, its end record says %llu"},
    Form{Kind::EndRecords, First, "the Zip64 locator at offset %llu leads to no Zip64 end record"},
    Form{Kind::EndRecords, None, "the end records contradict each other"},
    Form{Kind::EndRecords, First, "the end records lead to no central directory; they say offset %llu"},
    Form{Kind::EndRecords, Both, "the end records count %llu entries, the central directory has %llu"},
    Form{Kind::Directory, First, "the central directory is damaged at offset %llu"},
    Form{Kind::Split, First, "the archive is split, and this is part %llu of it"},
    Form{Kind::UnknownBytes, Both, "unknown bytes from offset %llu to offset %llu"},
    Form{Kind::UnknownBytes, First, "unknown bytes after the end of the archive, from offset %llu"},
    Form{Kind::EndRecords, None, "the end records speak of other disks"},
    Form{Kind::EndRecords, Both, "the Zip64 end record is at offset %llu, its locator says %llu"},
    Form{Kind::EndRecords, Both, "the end record counts %llu entries, its Zip64 form %llu"},
    Form{Kind::EndRecords, First, "the comment looks like an end record at offset %llu"},
    Form{Kind::UnknownBytes, First, "the Zip64 end record has %llu bytes of unknown data"},
    Form{Kind::Compressed, None, "is compressed; only stored entries can be read"},
    Form{Kind::Encrypted, None, "is encrypted"},
    Form{Kind::Split, None, "is on another part of the split archive"},
    Form{Kind::Overlap, None, "shares bytes with another entry"},
    Form{Kind::Overlap, First, "does not end before offset %llu, where something else begins"},
    Form{Kind::SameName, None, "has the name of a later entry, which counts"},
    Form{Kind::Header, First, "has no header at offset %llu"},
    Form{Kind::Header, None, "has no header where the central directory says, but another entry has its own"},
    Form{Kind::EndsEarly, None, "ends inside its header"},
    Form{Kind::EndsEarly, Both, "ends after %llu of %llu bytes"},
    Form{Kind::Header, None, "has no data descriptor that fits its data"},
    Form{Kind::Header, First, "has a damaged header at offset %llu"},
    Form{Kind::Header, First, "has another name in its header at offset %llu"},
    Form{Kind::Header, Both, "size is %llu in the central directory, header says %llu"},
    Form{Kind::Header, Both, "size once unpacked is %llu in the central directory, header says %llu"},
    Form{Kind::Header, Both, "compression method is %llu in the central directory, header says %llu"},
    Form{Kind::Header, HexadecimalBoth, "flags are %x in the central directory, header says %x"},
    Form{Kind::Header, HexadecimalBoth, "CRC-32 is %x in the central directory, header says %x"},
    Form{Kind::Data, HexadecimalBoth, "CRC-32 is %x, header says %x"},
    Form{Kind::Directory, None, "is not in the central directory"},
    Form{Kind::Directory, None, "has a name that is said to be UTF-8 and is not"},
    Form{Kind::Directory, None, "has a NUL in its name"},
    Form{Kind::Directory, None, "has an empty name"},
    Form{Kind::Header, HexadecimalFirst, "has flags without a meaning for it, %x"},
    Form{Kind::Directory, First, "is said to need version %llu of the format, in tenths"},
    Form{Kind::Header, First, "has extra fields that do not fit its header at offset %llu"},
    Form{Kind::Header, First, "has no Zip64 value for a field of its header at offset %llu"},
    Form{Kind::Header, First, "has another Zip64 value than its header at offset %llu needs"},
    Form{Kind::Header, None, "has another date in its header than in the central directory"},
    Form{Kind::Header, First, "has a data descriptor at offset %llu that does not fit"},
    Form{Kind::UnknownBytes, First, "%llu bytes stand in front of the first record"},
    Form{Kind::UnknownBytes, First, "%llu zero bytes follow the end of the archive"},
};

const Form& formOf(const KQZipFinding& finding) { return forms[static_cast<std::size_t>(finding.code)]; }

}  // namespace

std::string KQZipTextOf(const KQZipFinding& finding) {
  const Form& form = formOf(finding);
  const auto number =
      form.numbers >= HexadecimalFirst ? KQ::NSFormatArgument::hexadecimal : KQ::NSFormatArgument::decimal;
  if (form.numbers == None) return std::string(form.text);
  if (form.numbers == First || form.numbers == HexadecimalFirst)
    return KQ::stringWithFormat(form.text, {number(finding.first)});
  return KQ::stringWithFormat(form.text, {number(finding.first), number(finding.second)});
}

KQZipProblem KQZipProblemOf(const KQZipFinding& finding, const KQZipArchiveIndex& index) {
  KQZipProblem problem{formOf(finding).kind, std::nullopt, KQZipTextOf(finding)};
  std::string room;
  if (finding.entry != KQZipFinding::noEntry) problem.entry = index.name(index[finding.entry], room);
  return problem;
}
