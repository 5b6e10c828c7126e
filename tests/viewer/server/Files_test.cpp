#include "viewer/server/Files.h"

#include <algorithm>

#include "session/job/Errors.h"
#include "tests/support/Folder.h"

namespace korimg::viewer {
namespace {

namespace fs = std::filesystem;

class FilesList : public files::FolderTest {
 protected:
  FilesList() {
    for (const char* name : {"seen/b.fits", "seen/deep/a.FIT", "seen/notes.txt", "seen/.hidden/c.fits",
                             "secret/s.fits", "named.png"}) {
      fs::create_directories(In(name).parent_path());
      files::WriteBytes(In(name), "x");
    }
    fs::create_symlink("../secret/s.fits", In("seen/out.fits"));
    fs::create_directory_symlink("../secret", In("seen/folder"));
    fs::create_symlink("b.fits", In("seen/in.fits"));
    fs::create_hard_link(In("seen/b.fits"), In("seen/hard.fits"));
    fs::create_symlink("nowhere", In("seen/dead.fits"));
  }

  static std::vector<std::string> NamesOf(Files& files) {
    std::vector<std::string> names;
    for (const Files::Entry& entry : files.List())
      names.push_back(entry.name);
    return names;
  }
};

TEST_F(FilesList, HasImagesBelowWhatWasNamedAndNothingElse) {
  Files files({In("seen"), In("named.png")});
  EXPECT_EQ(NamesOf(files),
            (std::vector<std::string>{"named.png", "b.fits", "deep/a.FIT", "hard.fits", "in.fits"}));
  for (const Files::Entry& entry : files.List()) {
    EXPECT_TRUE(fs::exists(files.Find(entry.id)));
  }
  for (const int id : {-1, 5, 1 << 30})
    EXPECT_THROW(files.Find(id), session::UsageError);
  EXPECT_THROW(Files({In("missing")}), files::FileError);
  fs::create_directories(In("other"));
  files::WriteBytes(In("other/b.fits"), "x");
  Files same({In("seen/b.fits"), In("other/b.fits"), In("named.png")});
  EXPECT_EQ(NamesOf(same), (std::vector<std::string>{"seen/b.fits", "other/b.fits", "named.png"}));
}

TEST_F(FilesList, LooksAgainWhereAFileIsEachTime) {
  Files files({In("seen")});
  const std::vector<Files::Entry> before = files.List();
  const int b = before[0].id, deep = before[1].id;
  // What was an image of the folder has become a link out of it, or its folder has.
  fs::remove(In("seen/b.fits"));
  fs::create_symlink("../secret/s.fits", In("seen/b.fits"));
  EXPECT_THROW(files.Find(b), files::FileError);
  fs::rename(In("seen/deep"), In("deep"));
  fs::create_directory_symlink("../secret", In("seen/deep"));
  files::WriteBytes(In("secret/a.FIT"), "x");
  EXPECT_THROW(files.Find(deep), files::FileError);
  // New ones get new numbers, and the others keep theirs.
  files::WriteBytes(In("seen/0.fits"), "x");
  const std::vector<Files::Entry> after = files.List();
  EXPECT_EQ(after[0].name, "0.fits");
  EXPECT_EQ(after[0].id, static_cast<int>(before.size()));
}

TEST_F(FilesList, NewFilesLieBesideWhatIsSeen) {
  Files files({In("seen"), In("named.png")});
  const auto entries = files.List();
  const auto idOf = [&](const std::string& name) {
    return std::ranges::find(entries, name, &Files::Entry::name)->id;
  };
  EXPECT_EQ(files.Beside(idOf("deep/a.FIT"), "new.fits"), fs::canonical(In("seen/deep")) / "new.fits");
  for (const std::string name : {"", "new", "new.sh", "../new.fits", "deep/new.fits", "/tmp/new.fits",
                                 ".fits", ".new.fits", "..", "new.fits/", "new.jpg"}) {
    EXPECT_THROW(files.Beside(idOf("b.fits"), name), session::Error) << name;
  }
  EXPECT_THROW(files.Beside(idOf("b.fits"), std::string("a\0.fits", 7)), session::Error);
  // A link would be written through.
  EXPECT_THROW(files.Beside(idOf("b.fits"), "out.fits"), files::FileError);
  EXPECT_THROW(files.Beside(idOf("b.fits"), "dead.fits"), files::FileError);
  // What was written beside a file that was named is seen, and nothing else there.
  const fs::path made = files.Beside(idOf("named.png"), "made.fits");
  files::WriteBytes(made, "x");
  EXPECT_EQ(NamesOf(files).size(), entries.size());
  const int id = files.Add(made);
  EXPECT_EQ(files.Find(id), fs::canonical(made));
  EXPECT_EQ(NamesOf(files).size(), entries.size() + 1);
}

}  // namespace
}  // namespace korimg::viewer
