// Asset notes: the four commands on the sandbox's notes directory.
#include <gtest/gtest.h>

#include <filesystem>

#include "core/velm_plugin.h"
#include "notes/asset_notes.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr const char* kNotes = "/Library/Filesystems/Velm/config/notes/";

PropertyList note(const char* cls, const char* name, std::optional<const char*> contents = {}) {
  PropertyList n = PropertyList::dict();
  n.set("class", cls);
  n.set("name", name);
  if (contents) n.set("contents", *contents);
  return n;
}

PropertyList renaming(const char* cls, const char* from, const char* to) {
  PropertyList n = PropertyList::dict();
  n.set("class", cls);
  n.set("oldName", from);
  n.set("newName", to);
  return n;
}

class NotesTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(sandbox_.path("/Library/Filesystems/Velm/config"));
  }
  PropertyList run(const char* command, const char* key, std::vector<PropertyList> items) {
    PropertyList r = test::runCommand(plugin_, context_, command,
                                      {{key, PlistArray(items.begin(), items.end())}});
    return r.get("notes") ? *r.get("notes") : PropertyList();
  }
  static std::vector<std::string> texts(const PropertyList& notes) {
    std::vector<std::string> out;
    for (const PropertyList& n : *notes.asArray())
      out.push_back(*n.getString("class") + "_" + *n.getString("name") + "=" +
                    *n.getString("contents"));
    return out;
  }

  test::LogCapture log_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(NotesTest, WriteReadListAndRemove) {
  PropertyList set = run("setNotes", "notes",
                         {note("computer", "alpha", "rack 3"), note("volume", "Projects", "ours")});
  EXPECT_EQ(texts(set),
            (std::vector<std::string>{"computer_alpha=rack 3", "volume_Projects=ours"}));
  EXPECT_EQ(sandbox_.read(std::string(kNotes) + "computer_alpha"), "rack 3");
  auto mode = std::filesystem::status(sandbox_.path(kNotes)).permissions();
  EXPECT_EQ(mode, std::filesystem::perms(0755));

  EXPECT_EQ(texts(run("getNotes", "notes", {note("computer", "alpha"), note("computer", "beta")})),
            (std::vector<std::string>{"computer_alpha=rack 3", "computer_beta="}));
  EXPECT_EQ(texts(run("getAllNotes", "classes", {PropertyList("volume")})),
            (std::vector<std::string>{"volume_Projects=ours"}));

  // Empty contents removes the note, and says so with an empty record; twice is no failure.
  EXPECT_EQ(texts(run("setNotes", "notes", {note("computer", "alpha", "")})),
            (std::vector<std::string>{"computer_alpha="}));
  EXPECT_FALSE(sandbox_.exists(std::string(kNotes) + "computer_alpha"));
  EXPECT_EQ(run("setNotes", "notes", {note("computer", "alpha", "")}).size(), 1u);
  EXPECT_EQ(run("getNotes", "notes", {}).size(), 0u);
}

TEST_F(NotesTest, RenameOntoAnExistingNoteLeavesThatEntryOut) {
  run("setNotes", "notes", {note("lun", "a", "one"), note("lun", "b", "two")});
  PropertyList r =
      run("renameNotes", "notes",
          {renaming("lun", "a", "b"), renaming("lun", "a", "c"), renaming("lun", "x", "y")});
  EXPECT_EQ(texts(r), (std::vector<std::string>{"lun_c=one"}));
  EXPECT_TRUE(log_.contains("ERROR: renameNotes: unable to rename note from lun_a to lun_b"));
  EXPECT_EQ(sandbox_.read(std::string(kNotes) + "lun_b"), "two");
}

TEST_F(NotesTest, AClassThatPrefixesAnotherListsItsNotesToo) {
  run("setNotes", "notes", {note("a", "x", "1"), note("a_b", "c", "2")});
  // Deliberate: the prefix alone splits class from name.
  EXPECT_EQ(texts(run("getAllNotes", "classes", {PropertyList("a")})),
            (std::vector<std::string>{"a_b_c=2", "a_x=1"}));
}

TEST_F(NotesTest, APlainFileAtTheDirectoryFailsEveryWrite) {
  sandbox_.write("/Library/Filesystems/Velm/config/notes", "not a directory");
  EXPECT_EQ(run("setNotes", "notes", {note("computer", "alpha", "rack 3")}).size(), 0u);
  EXPECT_TRUE(log_.contains("is not a directory"));
  EXPECT_TRUE(log_.contains("ERROR: setNotes: unable to set note contents for computer_alpha"));
  EXPECT_FALSE(SANAssetNoteManager::defaultManager().removeAllNotes());
}

TEST_F(NotesTest, NamesThatLeaveTheDirectoryAreRefusedUnwritten) {
  std::vector<std::string> before = sandbox_.listing();
  PropertyList r = run("setNotes", "notes",
                       {note("computer", "../../../escape", "x"), note("..", "a", "x"),
                        note("computer", "", "x"), note("a/b", "c", "x")});
  EXPECT_EQ(r.size(), 0u);
  EXPECT_EQ(sandbox_.listing(), before);
  EXPECT_TRUE(log_.contains("ERROR: setNotes: refusing the note name"));
  EXPECT_EQ(run("renameNotes", "notes", {renaming("lun", "a", "../b")}).size(), 0u);
  EXPECT_EQ(run("getAllNotes", "classes", {PropertyList("../config")}).size(), 0u);
}

TEST_F(NotesTest, RemoveAllNotesTakesTheDirectory) {
  run("setNotes", "notes", {note("computer", "alpha", "rack 3")});
  EXPECT_TRUE(SANAssetNoteManager::defaultManager().removeAllNotes());
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/config/notes"));
  EXPECT_TRUE(SANAssetNoteManager::defaultManager().removeAllNotes());
}

}  // namespace
}  // namespace velm
