#include "service/system/upgrade/firmware_download.h"

#include <gmock/gmock.h>

#include <random>

#include "service/system/upgrade/firmware_world.h"
#include "support/full_disk.h"

namespace varnel::service {
namespace {

using Fault = FirmwareWorld::Fault;
using testing::ElementsAre;
using namespace std::chrono_literals;

class FirmwareDownloadTest : public testing::Test, protected FirmwareWorld {
 protected:
  void ExpectPublishedBytes() {
    EXPECT_EQ(Download(), DownloadOutcome::kSuccess) << log.Text();
    EXPECT_TRUE(Stored() == package);
    EXPECT_THAT(Names(), ElementsAre("2.0.0.bin"));
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
    EXPECT_EQ(percents.back(), 100);
  }
};

TEST_F(FirmwareDownloadTest, WhatIsOnTheDiskIsNotFetchedAgain) {
  std::mt19937 random(7);
  std::vector<Fault> cuts(50);
  for (Fault& cut : cuts) {
    cut = [bytes = 1 + random() % 1800](PackageAnswer& answer) { answer.sends = bytes; };
  }
  Spoil(cuts);
  ExpectPublishedBytes();
  EXPECT_EQ(sent, package.size());
  EXPECT_THAT(pauses, testing::Each(1s));
  std::filesystem::remove(store.Firmware("2.0.0"));
  for (Fault& cut : cuts) {
    cut = [bytes = random() % 4000](PackageAnswer& answer) {
      answer.sends = bytes;
      answer.resets = true;
    };
  }
  percents.clear();
  Spoil(cuts);
  ExpectPublishedBytes();
}

TEST_F(FirmwareDownloadTest, AnInterruptedOneGoesOnInTheNextRun) {
  const Fault half = [](PackageAnswer& answer) { answer.sends = 50'000; };
  const Fault nothing = [](PackageAnswer& answer) { answer.sends = 0; };
  Spoil({half, nothing, nothing, nothing});
  EXPECT_EQ(Download(), DownloadOutcome::kNetworkAbort);
  EXPECT_TRUE(log.Has("UPGM", "Download failed! ret= 18"));
  EXPECT_THAT(pauses, ElementsAre(1s, 1s, 2s));
  EXPECT_THAT(Names(), ElementsAre("2.0.0.bin.part", "2.0.0.bin.part.json"));
  ExpectPublishedBytes();
  EXPECT_EQ(sent, package.size());
}

TEST_F(FirmwareDownloadTest, WhateverAServerDoesWithRangesThePublishedBytesCome) {
  const Fault cut = [](PackageAnswer& answer) { answer.sends = 40'000; };
  const std::vector<Fault> faults{
      [this](PackageAnswer& answer) {  // it ignores the range
        answer = {.etag = etag, .body = package};
      },
      [](PackageAnswer& answer) { answer.range = "bytes 5-99999/100000"; },
      [](PackageAnswer& answer) { answer.range = "nonsense"; },
      [](PackageAnswer& answer) { answer.range = "bytes 40000-99999/200000"; },
      [](PackageAnswer& answer) {  // less than was asked for
        answer.range = "bytes 40000-49999/100000";
        answer.body.resize(10'000);
      },
      [](PackageAnswer& answer) { answer.etag = "\"of another\""; },
      [](PackageAnswer& answer) {
        answer = {.status = "416 Range Not Satisfiable", .body = "<html>"};
      },
      [this](PackageAnswer& answer) {  // another package of the same length, and back
        answer = {.etag = "\"v2\"", .body = std::string(package.size(), 'x'), .sends = 60'000};
      },
      [](PackageAnswer& answer) { answer = {.status = "403 Forbidden", .body = "<Error>"}; },
      [](PackageAnswer& answer) { answer.silent = true; },
  };
  for (const Fault& fault : faults) {
    percents.clear();
    Spoil({cut, fault});
    ExpectPublishedBytes();
    std::filesystem::remove(store.Firmware("2.0.0"));
  }
  EXPECT_EQ(fresh_urls, 1);
  // An address is refused, and the next one of another package too.
  Spoil({cut, faults[8],
         [this](PackageAnswer& answer) {
           answer = {.etag = "\"v2\"", .body = std::string(package.size(), 'x'), .sends = 20'000};
         },
         faults[8]});
  percents.clear();
  ExpectPublishedBytes();
  EXPECT_EQ(fresh_urls, 3);
}

TEST_F(FirmwareDownloadTest, EveryOtherEndIsTheRightOne) {
  const Fault cut = [](PackageAnswer& answer) { answer.sends = 40'000; };
  const Fault silent = [](PackageAnswer& answer) { answer.silent = true; };
  const Fault forbidden = [](PackageAnswer& answer) {
    answer = {.status = "403 Forbidden", .body = "<Error>"};
  };
  struct Case {
    const char* name;
    std::vector<Fault> faults;
    DownloadOutcome outcome;
    bool keeps;
  };
  const Case cases[] = {
      {"longer",
       {[](PackageAnswer& answer) { answer.announced = 100'001; }},
       DownloadOutcome::kCheckFailed,
       false},
      {"shorter",
       {[](PackageAnswer& answer) { answer.announced = 99'999; }},
       DownloadOutcome::kCheckFailed,
       false},
      {"shorter, not announced",
       {[](PackageAnswer& answer) {
         answer.announced = std::string::npos;
         answer.sends = 9999;
       }},
       DownloadOutcome::kCheckFailed,
       false},
      {"endless",
       {[](PackageAnswer& answer) {
         answer.announced = std::string::npos;
         answer.body = std::string(300'000, 'x');
       }},
       DownloadOutcome::kCheckFailed,
       false},
      {"other bytes",
       {[](PackageAnswer& answer) { answer.body[9] ^= 1; }},
       DownloadOutcome::kCheckFailed,
       false},
      {"a page",
       {[](PackageAnswer& answer) { answer.body = "<html>"; }},
       DownloadOutcome::kCheckFailed,
       false},
      {"none",
       {[](PackageAnswer& answer) { answer.status = "404 Not Found"; }},
       DownloadOutcome::kFailed,
       true},
      {"forbidden twice", {cut, forbidden, forbidden}, DownloadOutcome::kFailed, true},
      {"a file",
       {cut,
        [](PackageAnswer& answer) {
          answer = {.status = "302 Found", .more = "Location: file:///etc/hostname\r\n"};
        }},
       DownloadOutcome::kFailed,
       true},
      {"silent", {cut, silent, silent, silent}, DownloadOutcome::kNetworkAbort, true},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    Spoil(one.faults);
    EXPECT_EQ(ReasonOf(Download()), std::string(ReasonOf(one.outcome)));
    EXPECT_FALSE(std::filesystem::exists(store.Firmware("2.0.0")));
    EXPECT_EQ(!Names().empty(), one.keeps);
    store.RemovePart("2.0.0");
  }
  min_free_bytes = uint64_t{1} << 60U;
  EXPECT_EQ(Download(), DownloadOutcome::kFailed) << "no room";
  min_free_bytes = 0;
  {
    const test::FullDisk full(50'000);
    EXPECT_EQ(Download(), DownloadOutcome::kFailed);
  }
  Spoil({});
  percents.clear();
  ExpectPublishedBytes();
}

TEST_F(FirmwareDownloadTest, AChangedFileIsNoLongerGoodAndAnUnsignedOneNeverIs) {
  ExpectPublishedBytes();
  const auto file = store.Firmware("2.0.0");
  EXPECT_TRUE(check.CheckFirmwareFile(file, description));
  const auto time = std::filesystem::last_write_time(file);
  dir.Write("other", std::string(package.size(), 'x'));
  std::filesystem::rename(dir / "other", file);
  std::filesystem::last_write_time(file, time);
  EXPECT_FALSE(check.CheckFirmwareFile(file, description)) << "of equal size and times";
  dir.Write("real", package);
  std::filesystem::remove(file);
  std::filesystem::create_symlink(dir / "real", file);
  EXPECT_FALSE(check.CheckFirmwareFile(file, description)) << "a link";

  const auto openssl = [&](const std::string& line) {
    return std::system(("cd " + dir.Path().string() + " && " + line).c_str());
  };
  ASSERT_EQ(openssl("openssl genpkey -algorithm ed25519 -out key.pem && openssl pkey -in key.pem "
                    "-pubout -out public.pem && openssl dgst -sha256 -binary real > digest && "
                    "openssl pkeyutl -sign -rawin -inkey key.pem -in digest | openssl base64 -A "
                    "> signature"),
            0);
  FirmwareCheck strict(dir / "public.pem");
  EXPECT_FALSE(strict.CheckFirmwareFile(dir / "real", description));
  description.signature = test::ReadFile(dir / "signature");
  EXPECT_TRUE(strict.CheckFirmwareFile(dir / "real", description));
  std::filesystem::rename(dir / "public.pem", dir / "away.pem");
  EXPECT_FALSE(
      strict.CheckFirmwareFile(dir / "real", description, FirmwareCheck::Reading::kAlways));
  EXPECT_FALSE(strict.CheckFirmwareFile(dir / "real", description)) << "bad when it was read last";
  std::filesystem::rename(dir / "away.pem", dir / "public.pem");
  description.signature[5] ^= 1;
  EXPECT_FALSE(strict.CheckFirmwareFile(dir / "real", description));
  EXPECT_FALSE(FirmwareCheck(dir / "no.pem").CheckFirmwareFile(dir / "real", description));
}

TEST(FirmwareDescriptionTest, EachValueThatMakesNoSenseRefusesAll) {
  const test::LogCapture log;
  const nlohmann::json good = {{"version", "2"},
                               {"fullversion", "2.0.0"},
                               {"size", 5},
                               {"md5", std::string(32, 'A')},
                               {"release_notes", {{"de", "neu"}}}};
  const auto read = ReadFirmwareDescription(good.dump());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->md5, std::string(32, 'a'));
  EXPECT_EQ(read->release_notes, good["release_notes"]);
  for (const auto& [name, value] : good.items()) {
    nlohmann::json lacks = good;
    lacks.erase(name);
    EXPECT_FALSE(ReadFirmwareDescription(lacks.dump())) << name;
  }
  const std::pair<const char*, nlohmann::json> wrong[] = {{"size", 0},
                                                          {"size", -1},
                                                          {"size", uint64_t{1} << 63U},
                                                          {"size", "12"},
                                                          {"fullversion", "../x"},
                                                          {"fullversion", ".varnel-a"},
                                                          {"fullversion", "a/b"},
                                                          {"fullversion", ""},
                                                          {"fullversion", std::string("a\0b", 3)},
                                                          {"fullversion", std::string(129, 'v')},
                                                          {"md5", std::string(31, 'a')},
                                                          {"md5", std::string(32, 'g')}};
  for (const auto& [name, value] : wrong) {
    nlohmann::json bad = good;
    bad[name] = value;
    EXPECT_FALSE(ReadFirmwareDescription(bad.dump())) << name << value;
  }
  EXPECT_FALSE(ReadFirmwareDescription(std::string(100'000, '[')));
  EXPECT_FALSE(ReadFirmwareDescription(std::string(100, '[') + std::string(100, ']')));
  EXPECT_FALSE(ReadFirmwareDescription("{\"a\":}"));
  EXPECT_TRUE(log.Has("UPGM", "Firmware description: parse error at byte 6"));
}

}  // namespace
}  // namespace varnel::service
