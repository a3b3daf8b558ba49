// Writes the starting corpus of the fuzz targets: a few byte forms made by the
// library's own writer (plus hand-written ones for the reader's quirks), and
// their envelopes under the fixed host key of FuzzSupport.h. The output is the
// same on every run. Usage: make_starting_corpus <corpus folder>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "persistence/ByteForm.h"
#include "persistence/Envelope.h"
#include "platform/ipc/Frame.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace {

using namespace QelSS;
using Bytes = std::vector<uint8_t>;

void Check(std::error_code code) {
  if (!Succeeded(code)) {
    std::fprintf(stderr, "failed: %d\n", code.value());
    std::exit(1);
  }
}

template <typename I>
std::shared_ptr<IValue> Value(std::error_code code, std::shared_ptr<I> value) {
  Check(code);
  return value;
}

std::shared_ptr<IHash> AllKinds() {
  std::shared_ptr<IHash> hash;
  Check(HashFactory::Create(hash));
  std::shared_ptr<INull> null;
  std::shared_ptr<INumber> n1, n2, n3, n4;
  std::shared_ptr<IString> text;
  std::shared_ptr<IData> data;
  std::shared_ptr<IDate> date;
  std::shared_ptr<IUUID> uuid;
  std::shared_ptr<IArray> list;
  const Bytes bytes(80, 0x5a);
  Check(hash->Set("null", Value(NullFactory::Create(null), null)));
  Check(hash->Set("int", Value(NumberFactory::Create(n1, -7LL), n1)));
  Check(hash->Set("uint", Value(NumberFactory::Create(n2, 7ULL), n2)));
  Check(hash->Set("bool", Value(NumberFactory::Create(n3, true), n3)));
  Check(hash->Set("double", Value(NumberFactory::Create(n4, 0.25), n4)));
  Check(hash->Set("string", Value(StringFactory::Create(text, "a<b>&\"c\" \xc3\xa9"), text)));
  Check(hash->Set("data", Value(DataFactory::Create(data, bytes.data(), bytes.size()), data)));
  Check(hash->Set("date", Value(DateFactory::Create(date, 1700000000L), date)));
  Check(hash->Set("uuid", Value(UUIDFactory::Create(uuid, UUIDBytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
                                                                    11, 12, 13, 14, 15, 16}),
                                uuid)));
  Check(ArrayFactory::Create(list));
  Check(list->Append(text));
  Check(list->Append(n4));
  Check(hash->Set("list", list));
  std::shared_ptr<IHash> nested;
  Check(HashFactory::Create(nested));
  Check(nested->Set("inner", list));
  Check(hash->Set("nested", nested));
  return hash;
}

Bytes Written(const std::shared_ptr<IValue>& value) {
  Bytes bytes;
  Check(WriteByteForm(value, bytes));
  return bytes;
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

void Save(const std::filesystem::path& folder, const std::string& name, const Bytes& bytes) {
  std::filesystem::create_directories(folder);
  std::ofstream(folder / name, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  QelSS::fuzzing::SilenceReports();
  QelSS::fuzzing::UseFixedKeyHome();
  const std::filesystem::path root = argv[1];

  const std::vector<std::pair<std::string, Bytes>> forms = {
      {"all-kinds.xml", Written(AllKinds())},
      {"example.xml", Text("<Hash><String>count</String><Number type=\"int\">3</Number>"
                           "<String>names</String><Array><String>a</String><String>b</String>"
                           "</Array></Hash>")},
      {"quirks.xml", Text("<?xml version=\"1.0\"?>\n<Hash> <!-- c -->\n<String>k</String>"
                          "<Number kind=\"uint\">5</Number><String>f</String>"
                          "<Number type=\"float\">1</Number></Hash>")},
      {"nested.xml", Text("<Hash><String>a</String><Array><Hash><String>d</String>"
                          "<Number type=\"double\">0.1234567</Number><String>t</String>"
                          "<Date>-5</Date></Hash></Array></Hash>")},
      {"odd-pairs.xml", Text("<Hash><String>a</String><NULL/><Number type=\"int\">1</Number>"
                             "<String>b</String></Hash>")},
  };
  for (const auto& [name, bytes] : forms) {
    Save(root / "hash_from_bytes", name, bytes);
    Save(root / "format_bytes", name, bytes);
  }
  for (size_t i = 0; i < 3; ++i) {
    Bytes envelope;
    Check(Encrypt(forms[i].second, envelope));
    Save(root / "decrypt", "envelope-" + std::to_string(i) + ".bin", envelope);
  }
  Save(root / "decrypt", "short.bin", Bytes(48, 0x42));

  // Frames as a client sends them: a command carrying every kind, cut into
  // chunks of 16 bytes (the first byte), then a second frame.
  xpc_object_t message = nullptr;
  Check(AllKinds()->CopyXPCObject(&message));
  Bytes stream = {15};
  Check(platform::ipc::EncodeFrame(1, message, stream));
  Check(platform::ipc::EncodeFrame(0, message, stream));
  xpc_release(message);
  Save(root / "frame_reader", "two-frames.bin", stream);
  return 0;
}
