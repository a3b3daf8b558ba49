// A first QelSS program: opens a settings domain kept in a folder, writes
// several settings in one transaction, reads them back typed, and runs a
// read-modify-write as one unit.
//
//   qelss_quickstart [folder]
//
// Without a folder, a temporary one is used and removed at the end. Run it
// twice with the same folder and the launch counter goes up: the domain is
// saved to an encrypted file in that folder.

#include <qelss/QelSharedSettings.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

bool Check(const char* what, const std::error_code& rc) {
  if (QelSS::Succeeded(rc)) return true;
  std::fprintf(stderr, "%s failed: %s\n", what, QelSS::DescribeErrorCode(rc).c_str());
  return false;
}

// Everything in one transaction: readers see all of it or none of it.
bool WriteProfile(QelSS::QSSDomain& prefs) {
  const std::vector<unsigned char> artwork = {0x89, 'P', 'N', 'G'};
  return Check("CreateTransaction", prefs.CreateTransaction()) &&
         Check("Set volume", prefs.Set("/player/volume", 11LL)) &&
         Check("Set station", prefs.Set("/player/station", std::string("Radio Nowhere"))) &&
         Check("Set shuffle", prefs.Set("/player/shuffle", true)) &&
         Check("Set gain", prefs.Set("/player/gain", -3.5)) &&
         // A `long` is a date: seconds since 1970.
         Check("Set last played", prefs.Set("/player/lastPlayed", long{std::time(nullptr)})) &&
         Check("Set artwork", prefs.Set("/player/artwork", artwork)) &&
         Check("CommitTransaction", prefs.CommitTransaction());
}

bool ReadProfile(const QelSS::QSSDomain& prefs) {
  long long volume = 0;
  std::string station;
  bool shuffle = false;
  double gain = 0;
  long lastPlayed = 0;
  std::vector<unsigned char> artwork;
  if (!Check("Get volume", prefs.Get("/player/volume", volume)) ||
      !Check("Get station", prefs.Get("/player/station", station)) ||
      !Check("Get shuffle", prefs.Get("/player/shuffle", shuffle)) ||
      !Check("Get gain", prefs.Get("/player/gain", gain)) ||
      !Check("Get last played", prefs.Get("/player/lastPlayed", lastPlayed)) ||
      !Check("Get artwork", prefs.Get("/player/artwork", artwork))) {
    return false;
  }
  std::printf("volume %lld, station \"%s\", shuffle %s, gain %.1f dB, artwork %zu bytes\n", volume,
              station.c_str(), shuffle ? "on" : "off", gain, artwork.size());
  std::printf("last played %ld seconds after 1970\n", lastPlayed);

  // Kinds are kept apart: the volume is a signed number, not an unsigned one.
  unsigned long long wrongKind = 0;
  const std::error_code rc = prefs.Get("/player/volume", wrongKind);
  std::printf("reading the volume as unsigned: %s\n", QelSS::DescribeErrorCode(rc).c_str());
  return rc == QelSS::make_error_code(QelSS::kInvalidType);
}

// Read, decide and write with no other thread's write in between.
bool CountLaunch(QelSS::QSSDomain& prefs, unsigned long long& launches) {
  std::error_code rc;
  const std::error_code blockRc = prefs.PerformBlock([&] {
    unsigned long long previous = 0;
    rc = prefs.Get("/launches", previous);
    if (rc == QelSS::make_error_code(QelSS::kNotFound))
      previous = 0;
    else if (!QelSS::Succeeded(rc))
      return;
    launches = previous + 1;
    rc = prefs.SetCommit("/launches", launches);
  });
  return Check("PerformBlock", blockRc) && Check("launch counter", rc);
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder;
  bool temporary = false;
  if (argc > 1) {
    folder = argv[1];
  } else {
    std::string pattern = (std::filesystem::temp_directory_path() / "quickstart-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return EXIT_FAILURE;
    folder = pattern;
    temporary = true;
  }

  bool ok = false;
  {
    std::shared_ptr<QelSS::QSSDomain> prefs;
    if (Check("QSSDomain::Create",
              QelSS::QSSDomain::Create(prefs, "quickstart", "com.example.quickstart",
                                       folder.c_str(), true))) {
      std::printf("opened domain \"quickstart\" in %s\n", folder.c_str());
      unsigned long long launches = 0;
      ok = WriteProfile(*prefs) && ReadProfile(*prefs) && CountLaunch(*prefs, launches);
      if (ok) std::printf("launch number %llu recorded\n", launches);
    }
    // Releasing the facade saves what is still unsaved.
  }

  if (temporary) {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  std::printf("%s\n", ok ? "done" : "failed");
  return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
