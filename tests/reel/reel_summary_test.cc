// The run summary: the document renders the run's state as scripts read it,
// the first recorded end wins, and a file still open at the end stands as
// incomplete with what it holds.
#include "reel/reel_summary.h"

#include "common/mrv_json.h"
#include "reel/reel_current.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

JsonValue parsed(const std::string& text) {
  JsonValue v;
  std::string error;
  EXPECT_TRUE(M_json_parse(text, &v, &error)) << error << "\n" << text;
  return v;
}

class Summary : public testing::Test {
 protected:
  void SetUp() override {
    reel_summary = RunSummary{};
    reel_current = CurrentFile{};
  }
  void TearDown() override {
    reel_summary = RunSummary{};
    reel_current = CurrentFile{};
  }
  // The slot as the dispatcher leaves it for a new file.
  void slot(int32_t kind, const std::string& name, const std::string& on_disk, int32_t modulo) {
    reel_current = CurrentFile{};
    reel_current.file_kind = kind;
    reel_current.name = name;
    reel_current.short_name = on_disk;
    reel_current.modulo = modulo;
  }
};

TEST_F(Summary, FilesOfAnAccountAsTheRunFedThem) {
  reel_summary_account("STAGE", "/x/STAGE");
  reel_summary_rename_account("SALES");
  slot(FILE_KIND_DATA, "ORDER LINES", "ORDER_LINESa", 7);
  reel_summary_file_begin();
  reel_summary_file_begin();  // made, then opened: still one entry
  reel_current.key_bytes = 40;
  reel_current.data_bytes = 900;
  reel_summary_current_file()->resized_to = 13;
  reel_summary_file_end(12, true);
  slot(FILE_KIND_DICT, "ORDER LINES", "ORDER_LINESa", 1);
  reel_summary_file_begin();
  reel_summary_dispmsg_error(true);  // a record dropped in this file
  reel_summary_dispmsg_error(false);
  reel_summary_file_end(3, true);
  slot(FILE_KIND_DIR, "BP", "BP", 0);
  reel_summary_file_begin();
  reel_summary_member();
  reel_summary_member();
  reel_summary_file_end(-1, true);
  reel_summary_bad_block();
  reel_summary_account_at("/x/SALES");
  reel_summary_end(RunEnd::EndOfSave);
  reel_summary_end(RunEnd::Fatal);  // the first end stands

  JsonValue doc = parsed(reel_summary_json(reel_summary, reel_summary.started + 2.5));
  EXPECT_EQ(doc.text_of("program"), "REEL_INTAKE");
  EXPECT_TRUE(doc.bool_of("completed"));
  EXPECT_EQ(doc.text_of("ended_by"), "end of save");
  EXPECT_EQ(doc.number_of("seconds"), 2.5);
  EXPECT_EQ(doc.number_of("records_restored"), 15);  // DATA and DICT only
  const JsonValue& account = doc.get("accounts")->items.at(0);
  EXPECT_EQ(account.text_of("name"), "SALES");
  EXPECT_EQ(account.text_of("directory"), "/x/SALES");
  EXPECT_EQ(account.number_of("members"), 2);
  EXPECT_EQ(account.number_of("bad_blocks"), 1);
  EXPECT_EQ(account.number_of("dispmsg_errors"), 2);
  const auto& files = account.get("files")->items;
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files[0].text_of("tape_name"), "ORDER LINES");
  EXPECT_EQ(files[0].text_of("target"), "ORDER_LINESa");
  EXPECT_EQ(files[0].number_of("modulo"), 7);
  EXPECT_EQ(files[0].number_of("resized_to"), 13);
  EXPECT_EQ(files[0].get("suggested_modulo")->type, JsonValue::Type::Null);
  EXPECT_EQ(files[0].number_of("data_bytes"), 900);
  EXPECT_TRUE(files[0].bool_of("complete"));
  EXPECT_EQ(files[1].text_of("kind"), "DICT");
  EXPECT_EQ(files[1].text_of("target"), "D_ORDER_LINESa");
  EXPECT_EQ(files[1].number_of("records_dropped"), 1);
  EXPECT_FALSE(files[1].bool_of("complete"));  // a record was dropped
  EXPECT_EQ(files[2].text_of("kind"), "DIR");
  EXPECT_EQ(files[2].number_of("records_restored"), 2);
}

TEST_F(Summary, AnEndWithoutARecordedReasonIsFatalAndTheOpenFileIncomplete) {
  TempDir tmp;
  reel_summary_account("A", tmp.str());
  slot(FILE_KIND_DATA, "BIG\xFE\"", "BIG", 3);
  reel_summary_file_begin();
  reel_current.key_bytes = 5;
  const std::string path = tmp.str() + "/summary.json";
  ASSERT_EQ(reel_summary_write(path), 1);
  JsonValue doc = parsed(slurp(path));
  EXPECT_FALSE(doc.bool_of("completed", true));
  EXPECT_EQ(doc.text_of("ended_by"), "fatal");
  const JsonValue& file = doc.get("accounts")->items.at(0).get("files")->items.at(0);
  EXPECT_EQ(file.text_of("tape_name"), "BIG\xFE\"");  // any byte survives the round trip
  EXPECT_FALSE(file.bool_of("complete", true));
  EXPECT_EQ(file.number_of("key_bytes"), 5);
  // Written through a temporary name: only the document is left.
  int entries = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(tmp.path())) ++entries;
  EXPECT_EQ(entries, 1);
  EXPECT_EQ(reel_summary_write(tmp.str() + "/no/such/dir/s.json"), 0);
}

}  // namespace
