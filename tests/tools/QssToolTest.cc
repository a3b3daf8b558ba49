#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "QssFixture.h"

namespace qss_test {
namespace {

constexpr int kUsage = 1;
constexpr int kNotFound = 2;
constexpr int kFailure = 3;

using QssTest = QssFixture;

// Every value is read by a new process, so each one also proves that the
// writing process left it on disk before it exited.
TEST_F(QssTest, EveryTypeReadsBackAsWrittenInANewProcess) {
  struct Case {
    std::vector<std::string> write;  // TYPE VALUE...
    std::string shown;
  };
  const std::vector<Case> cases = {
      {{"int", "-42"}, "-42\n"},
      {{"uint", "18446744073709551615"}, "18446744073709551615\n"},
      {{"double", "0.25"}, "0.25\n"},
      {{"bool", "yes"}, "true\n"},
      {{"bool", "FALSE"}, "false\n"},
      {{"string", "grüße & <tags>"}, "grüße & <tags>\n"},
      {{"string", ""}, "\n"},
      {{"data", "0aFF10"}, "0aff10\n"},
      {{"data", "base64:AAEC/w=="}, "000102ff\n"},
      {{"data", ""}, "\n"},
      {{"date", "2024-05-01T12:30:00Z"}, "2024-05-01T12:30:00Z\n"},
      {{"date", "86400"}, "1970-01-02T00:00:00Z\n"},
      {{"date", "2000-02-29"}, "2000-02-29T00:00:00Z\n"},
      {{"uuid", "0f8a2c3e-4b5d-4e6f-8091-a2b3c4d5e6f7"}, "0F8A2C3E-4B5D-4E6F-8091-A2B3C4D5E6F7\n"},
      {{"null"}, "null\n"},
      {{"array", "<Array><Number type=\"int\">1</Number><String>two</String></Array>"},
       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Array>\n  <Number type=\"int\">1</Number>\n"
       "  <String>two</String>\n</Array>\n"},
      {{"hash",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Hash>\n  <String>k</String>\n  "
        "<NULL/>\n</Hash>\n"},
       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Hash>\n  <String>k</String>\n  "
       "<NULL/>\n</Hash>\n"},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const std::string path = "/values/v" + std::to_string(i);
    std::vector<std::string> write = {"write", "types", path};
    write.insert(write.end(), cases[i].write.begin(), cases[i].write.end());
    Succeed(write);
    EXPECT_EQ(Succeed({"read", "types", path}), cases[i].shown) << cases[i].write[0];
  }
  // The byte form shows what plain text cannot: the kind of a number.
  EXPECT_EQ(Succeed({"read", "--xml", "types", "/values/v1"}),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Number "
            "type=\"uint\">18446744073709551615</Number>\n");
}

TEST_F(QssTest, WholeDomainReadShowsEveryKeyAndOverwritesKeepTheRest) {
  Succeed({"write", "Player", "/window/width", "int", "3"});
  Succeed({"write", "player", "/name", "string", "x"});
  Succeed({"write", "player", "/window/width", "int", "4"});
  // Domain names compare without case: both writes went to one domain.
  EXPECT_EQ(Succeed({"read", "PLAYER"}),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Hash>\n  <String>name</String>\n  "
            "<String>x</String>\n"
            "  <String>window</String>\n  <Hash>\n    <String>width</String>\n"
            "    <Number type=\"int\">4</Number>\n  </Hash>\n</Hash>\n");
  EXPECT_EQ(Succeed({"read", "player", "//window//width/"}), "4\n");
}

TEST_F(QssTest, LookingAtWhatIsNotThereFailsAndCreatesNothing) {
  ExpectFailure(Qss({"read", "absent"}), kNotFound, {"no domain absent", "kNotFound (203)"});
  ExpectFailure(Qss({"export", "absent"}), kNotFound, {"kNotFound (203)"});
  ExpectFailure(Qss({"delete", "absent", "/k"}), kNotFound, {"kNotFound (203)"});
  EXPECT_FALSE(Exists(DomainFile("absent")));

  Succeed({"write", "prefs", "/a", "int", "1"});
  ExpectFailure(Qss({"read", "prefs", "/a/b"}), kNotFound,
                {"no key /a/b in domain prefs", "kNotFound (203)",
                 "qss --folder " + folder_ + " read prefs"});
  ExpectFailure(Qss({"delete", "prefs", "/b"}), kNotFound, {"no key /b", "kNotFound (203)"});
}

TEST_F(QssTest, DeleteRemovesOnlyTheKeyGiven) {
  Succeed({"write", "prefs", "/keep", "bool", "on"});
  Succeed({"write", "prefs", "/gone/deep", "string", "x"});
  Succeed({"delete", "prefs", "/gone/deep"});
  ExpectFailure(Qss({"read", "prefs", "/gone/deep"}), kNotFound, {"kNotFound (203)"});
  EXPECT_EQ(Succeed({"read", "prefs", "/keep"}), "true\n");
  EXPECT_EQ(Succeed({"read", "prefs", "/gone"}),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Hash/>\n");
}

TEST_F(QssTest, ExportAndImportRestoreADomain) {
  Succeed({"write", "prefs", "/a", "int", "1"});
  Succeed({"write", "prefs", "/b/c", "data", "beef"});
  Succeed({"write", "prefs", "/d", "date", "1700000000"});
  const std::string exported = Succeed({"export", "prefs"});
  Succeed({"export", "prefs", InRoot("prefs.xml")});
  EXPECT_EQ(ReadFile(InRoot("prefs.xml")), exported);
  EXPECT_EQ(std::filesystem::status(InRoot("prefs.xml")).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  Succeed({"write", "prefs", "/a", "int", "2"});
  Succeed({"write", "prefs", "/extra", "null"});
  Succeed({"delete", "prefs", "/b/c"});
  Succeed({"import", "prefs", InRoot("prefs.xml")});
  EXPECT_EQ(Succeed({"read", "prefs"}), exported);

  // --merge keeps what the file does not mention; standard input works too.
  Succeed({"write", "prefs", "/extra", "null"});
  Succeed({"write", "copy", "/a", "int", "9"});
  Succeed({"import", "--merge", "prefs", "-"}, Succeed({"export", "copy"}));
  EXPECT_EQ(Succeed({"read", "prefs", "/a"}), "9\n");
  EXPECT_EQ(Succeed({"read", "prefs", "/extra"}), "null\n");
  EXPECT_EQ(Succeed({"read", "prefs", "/d"}), "2023-11-14T22:13:20Z\n");

  // An import creates a domain that does not exist yet.
  Succeed({"import", "fresh", InRoot("prefs.xml")});
  EXPECT_EQ(Succeed({"export", "fresh"}), exported);
}

// The default drop folder is the data home's; the exported form is what an
// administrator drops.
TEST_F(QssTest, PredefineImportsDroppedFilesAndTellsOfEach) {
  Succeed({"write", "source", "/a/b", "int", "5"});
  const std::string drop = InRoot("data/qelvarin/DomainSettings/Predefines/Domains/");
  std::filesystem::create_directories(drop);
  WriteFile(drop + "com.example.app.xml", Succeed({"export", "source"}));
  WriteFile(drop + "broken", "<Hash>");
  for (const char* name : {"com.example.app.xml", "broken"}) {
    std::filesystem::permissions(
        drop + name, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  Succeed({"write", "com.example.app", "/kept", "int", "1"});

  const Outcome run = Qss({"predefine"});
  EXPECT_EQ(run.status, 3);
  EXPECT_NE(run.out.find("refused broken: the file is not a byte form that can be read: "
                         "kSerializationError (351); moved to "),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("imported com.example.app.xml into com.example.app; moved to "),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.err.find("1 of 2 dropped files were refused"), std::string::npos) << run.err;
  EXPECT_EQ(Succeed({"read", "com.example.app", "/a/b"}), "5\n");
  EXPECT_EQ(Succeed({"read", "com.example.app", "/kept"}), "1\n");
  EXPECT_EQ(Succeed({"predefine"}), "");
}

// Each process loads the domain and writes its whole tree back as it exits;
// without taking turns the last one would drop the others' keys.
TEST_F(QssTest, ConcurrentWritersKeepEveryChange) {
  constexpr int kWriters = 8;
  Succeed({"write", "shared", "/first", "int", "0"});
  std::vector<Outcome> outcomes(kWriters);
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back([&, i] {
      outcomes[i] = Qss({"write", "shared", "/k" + std::to_string(i), "int", std::to_string(i)});
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (int i = 0; i < kWriters; ++i) {
    EXPECT_EQ(outcomes[i].status, 0) << outcomes[i].err;
    EXPECT_EQ(Succeed({"read", "shared", "/k" + std::to_string(i)}), std::to_string(i) + "\n");
  }
}

TEST_F(QssTest, ABadImportFileChangesNothing) {
  Succeed({"write", "prefs", "/a", "int", "1"});
  const std::string before = Succeed({"export", "prefs"});
  struct Case {
    std::string text;
    std::vector<std::string> phrases;
  };
  const std::vector<Case> cases = {
      {before.substr(0, before.size() / 2), {"is not a well-formed value", "(351)"}},
      {"<Number type=\"int\">5</Number>", {"not a hash", "kInvalidData (498)"}},
      {"<Hash><String>x</String></Hash>", {"kInvalidData (498)"}},
      {"<Hash></Hash><Hash></Hash>", {"exactly one value", "kInvalidData (498)"}},
      {"<Hash><String>a/b</String><NULL/></Hash>", {"\"a/b\" cannot be imported", "(204)"}},
      // Past libxml2's limit on one text node: a size limit, not damage.
      {"<Hash><String>big</String><String>" + std::string(10'000'001, 'x') + "</String></Hash>",
       {"over 10,000,000 bytes of text", "kStorageError (363)"}},
      {"", {"is empty", "kInvalidArgument (204)"}},
  };
  for (const Case& c : cases) {
    WriteFile(InRoot("bad.xml"), c.text);
    ExpectFailure(Qss({"import", "prefs", InRoot("bad.xml")}), kFailure, c.phrases);
  }
  ExpectFailure(Qss({"import", "prefs", InRoot("missing.xml")}), kFailure,
                {"cannot read", "kFileReadError (361)"});
  EXPECT_EQ(Succeed({"export", "prefs"}), before);
  ExpectFailure(Qss({"import", "new", InRoot("bad.xml")}), kFailure, {"(204)"});
  EXPECT_FALSE(Exists(DomainFile("new")));
}

TEST_F(QssTest, BadCommandLinesNameTheCodeAndOpenNothing) {
  struct Case {
    std::vector<std::string> arguments;
    std::vector<std::string> phrases;
  };
  const std::string longName(231, 'n');
  const std::vector<Case> cases = {
      {{"write", "d", "/k", "float", "1"}, {"unknown type \"float\"", "kInvalidArgument (204)"}},
      {{"write", "d", "/k", "int", "12x"}, {"\"12x\" is not a valid int", "(204)"}},
      {{"write", "d", "/k", "int", "9223372036854775808"}, {"not a valid int"}},
      {{"write", "d", "/k", "uint", "-1"}, {"not a valid uint"}},
      {{"write", "d", "/k", "bool", "maybe"}, {"not a valid bool"}},
      {{"write", "d", "/k", "double", "1,5"}, {"not a valid double"}},
      {{"write", "d", "/k", "date", "2023-02-29"}, {"not a valid date"}},
      {{"write", "d", "/k", "date", "1969-12-31"}, {"out of range", "(204)"}},
      {{"write", "d", "/k", "uuid", "0f8a2c3e4b5d4e6f8091a2b3c4d5e6f7"}, {"not a valid uuid"}},
      {{"write", "d", "/k", "data", "abc"}, {"odd number"}},
      {{"write", "d", "/k", "data", "base64:AB$C"}, {"base64 does not use"}},
      {{"write", "d", "/k", "data", "base64:QUJD="}, {"not valid base64"}},
      {{"write", "d", "/k", "int"}, {"missing VALUE"}},
      {{"write", "d", "/k", "null", "x"}, {"takes no VALUE"}},
      {{"write", "d", "/k", "hash", "<Array/>"}, {"VALUE is not a hash", "kInvalidData (498)"}},
      {{"write", "d", "/k", "hash", "<Hash><String>a</Hash>"},
       {"VALUE is not a well-formed value", "kSerializationError (351)"}},
      {{"write", "d", "/k", "string", "bell\a"}, {"cannot keep", "(204)"}},
      {{"write", "d", "/", "int", "1"}, {"names no key", "kInvalidArgument (204)"}},
      {{"read", "d", "///"}, {"names no key"}},
      {{"write", longName, "/k", "int", "1"}, {"231 bytes long", "kInvalidArgument (204)"}},
      {{"write", "a/b", "/k", "int", "1"}, {"holds a \"/\"", "(204)"}},
      {{"--configuration", "x", "read", "d"}, {"not a configuration"}},
      {{"watch", "d"}, {"cannot be watched", "kOperationRefused (208)", "--service watch d"}},
      {{"frobnicate"}, {}},
      {{}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments.empty() ? "(no arguments)" : c.arguments[0]);
    ExpectFailure(Qss(c.arguments), kUsage, c.phrases);
  }
  EXPECT_FALSE(Exists(folder_));

  const std::string longest(230, 'n');
  Succeed({"write", longest, "/k", "int", "1"});
  EXPECT_EQ(Succeed({"read", longest, "/k"}), "1\n");
}

TEST_F(QssTest, WritingBelowAValueThatIsNotAHashIsATypeMismatch) {
  Succeed({"write", "prefs", "/a", "string", "x"});
  ExpectFailure(Qss({"write", "prefs", "/a/b", "int", "1"}), kFailure,
                {"cannot write /a/b", "kInvalidType (205)"});
  EXPECT_EQ(Succeed({"read", "prefs", "/a"}), "x\n");
}

TEST_F(QssTest, TheSettingsServiceIsNotAvailable) {
  const std::vector<std::vector<std::string>> commands = {
      {"read", "prefs"},         {"read", "prefs", "/a"}, {"write", "prefs", "/a", "int", "1"},
      {"delete", "prefs", "/a"}, {"export", "prefs"},     {"watch", "prefs"},
      {"config", "current"},
  };
  for (const auto& command : commands) {
    std::vector<std::string> arguments = {"--service"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    SCOPED_TRACE(command[0]);
    ExpectFailure(QssPlain(arguments), kFailure,
                  {"the settings service is not available", "kConnectionError (251)"});
  }
  WriteFile(InRoot("in.xml"), "<Hash></Hash>");
  ExpectFailure(QssPlain({"--service", "import", "prefs", InRoot("in.xml")}), kFailure,
                {"the settings service is not available"});
  EXPECT_FALSE(Exists(root_ + "/data/qelvarin/domains"));
}

TEST_F(QssTest, ADamagedDomainFileIsReportedAndLeftAlone) {
  Succeed({"write", "prefs", "/a", "int", "1"});
  std::string damaged = ReadFile(DomainFile("prefs"));
  ASSERT_GT(damaged.size(), 40u);
  damaged[damaged.size() / 2] ^= 0x5a;
  WriteFile(DomainFile("prefs"), damaged);
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"read", "prefs"}, {"read", "prefs", "/a"}, {"write", "prefs", "/b", "int", "2"}}) {
    ExpectFailure(Qss(command), kFailure,
                  {"the domain file " + DomainFile("prefs") + " cannot be read or is damaged"});
  }
  EXPECT_EQ(ReadFile(DomainFile("prefs")), damaged);
}

// Success means on disk: a commit the domain cannot write is a failure.
TEST_F(QssTest, AChangeThatCannotReachTheDiskFails) {
  Succeed({"write", "prefs", "/a", "int", "1"});
  const std::string blocker = DomainFile("prefs") + "xyzzyx";
  std::filesystem::create_directories(blocker + "/inside");
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"write", "prefs", "/a", "int", "2"}, {"delete", "prefs", "/a"}}) {
    ExpectFailure(Qss(command), kFailure,
                  {"cannot be written to " + DomainFile("prefs"), "kFileWriteError (362)"});
  }
  std::filesystem::remove_all(blocker);
  EXPECT_EQ(Succeed({"read", "prefs", "/a"}), "1\n");

  // A domain file nests 200 levels: a key path of 197 still takes a scalar; a
  // longer one is refused before anything opens, naming the real limit.
  std::string deep;
  for (int i = 0; i < 197; ++i) deep += "/l";
  Succeed({"write", "prefs", deep, "int", "1"});
  ExpectFailure(Qss({"write", "prefs", deep + "/l", "int", "1"}), kUsage,
                {"198 levels", "197 at most"});
  ExpectFailure(Qss({"write", "prefs", deep, "hash", "<Hash><String>k</String><NULL/></Hash>"}),
                kFailure, {"a domain cannot keep it", "kInvalidArgument (204)"});
  EXPECT_EQ(Succeed({"read", "prefs", "/a"}), "1\n");
}

TEST_F(QssTest, UnusableFoldersAreReported) {
  WriteFile(InRoot("file"), "not a folder");
  const Outcome run = RunQss(
      {"--folder", InRoot("file") + "/domains", "write", "d", "/k", "int", "1"}, environment_);
  ExpectFailure(run, kFailure, {"cannot create the folder", "kDirectoryError (201)"});

  if (::geteuid() != 0) {
    std::filesystem::create_directory(InRoot("locked"));
    std::filesystem::permissions(
        InRoot("locked"), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    ExpectFailure(
        RunQss({"--folder", InRoot("locked"), "write", "d", "/k", "int", "1"}, environment_),
        kFailure, {"is not writable", "kFileWriteError (362)"});
  }
}

TEST_F(QssTest, TheDefaultFolderIsInTheDataHome) {
  EXPECT_EQ(QssPlain({"write", "prefs", "/k", "string", "v"}).status, 0);
  EXPECT_TRUE(Exists(root_ + "/data/qelvarin/domains/com.qelvarin.prefs"));
  EXPECT_EQ(QssPlain({"read", "prefs", "/k"}).out, "v\n");
  // Each configuration keeps its own copy of a domain.
  EXPECT_EQ(QssPlain({"--configuration", "7", "write", "prefs", "/k", "string", "seven"}).status,
            0);
  EXPECT_EQ(QssPlain({"--configuration", "7", "read", "prefs", "/k"}).out, "seven\n");
  EXPECT_EQ(QssPlain({"read", "prefs", "/k"}).out, "v\n");
}

TEST_F(QssTest, HelpDescribesTheCommands) {
  const Outcome help = QssPlain({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* word :
       {"read", "write", "delete", "export", "import", "watch", "config", "Exit status"}) {
    EXPECT_NE(help.out.find(word), std::string::npos) << word;
  }
  const Outcome write = QssPlain({"write", "--help"});
  EXPECT_EQ(write.status, 0);
  EXPECT_NE(write.out.find("base64:TEXT"), std::string::npos);
}

}  // namespace
}  // namespace qss_test
