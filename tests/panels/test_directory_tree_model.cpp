#include <gtest/gtest.h>

#include <QAbstractItemModelTester>

#include "DirectoryTreeModel.h"
#include "PanelFakes.h"
#include "TestSupport.h"

using namespace ostv;

namespace {

DirectoryItem dir(const QString& path) { return test::makeItem(path); }
DirectoryItem file(const QString& path) { return test::makeItem(path, false); }

QStringList names(const DirectoryTreeModel& m, const QModelIndex& parent = {}) {
    QStringList out;
    for (int r = 0; r < m.rowCount(parent); ++r) out << m.index(r, 0, parent).data().toString();
    return out;
}

}  // namespace

TEST(DirectoryTreeModel, DirectoriesAttachAtDepthRelistingReplacesAndListingsAreAskedForOncePerFill) {
    DirectoryTreeModel m;
    m.setListingRetryAfterMs(30);
    // Qt's model checker follows every change and ends the program on any broken rule of the model.
    QAbstractItemModelTester check(&m, QAbstractItemModelTester::FailureReportingMode::Fatal);
    m.setDirectories({file("/h/z.txt"), dir("/h/a"), file("/h/Makefile"), dir("/h/b")});
    EXPECT_EQ(names(m), QStringList({"a", "b"}));  // directories only, in the order received
    // A directory shows an expander before anything is known of its contents.
    EXPECT_TRUE(m.hasChildren(m.index(0, 0)));
    EXPECT_EQ(m.rowCount(m.index(0, 0)), 0);
    ASSERT_TRUE(m.setChildren({dir("/h/b/x"), file("/h/b/readme"), dir("/h/b/y")}, "/h/b"));
    ASSERT_TRUE(m.setChildren({file("/h/b/y/1.txt"), dir("/h/b/y/deep"), file("/h/b/y/2.txt")}, "/h/b/y"));
    ASSERT_TRUE(m.setChildren({dir("/h/b/y/deep/end")}, "/h/b/y/deep"));

    const QModelIndex b = m.index(1, 0);
    EXPECT_EQ(names(m, b), QStringList({"x", "y"}));
    const QModelIndex y = m.index(1, 0, b);
    EXPECT_EQ(names(m, y), QStringList({"deep"}));
    EXPECT_EQ(names(m, m.index(0, 0, y)), QStringList({"end"}));
    EXPECT_EQ(m.indexForPath("/h/b/y/deep/end").parent().parent(), y);

    const QList<DirectoryItem> tree = m.directories();
    EXPECT_FALSE(tree[0].children.has_value());
    ASSERT_TRUE(tree[1].children.has_value());
    EXPECT_EQ(tree[1].children->size(), 2);
    EXPECT_FALSE((*tree[1].children)[0].children.has_value());  // "x" still unloaded

    // A listing for a path the tree does not hold (or holds only inside an unloaded node) changes nothing.
    EXPECT_FALSE(m.setChildren({dir("/h/a/q/r")}, "/h/a/q"));
    EXPECT_FALSE(m.setChildren({dir("/h/B/z")}, "/h/B"));  // case-sensitive
    EXPECT_TRUE(std::ranges::equal(m.directories(), tree));

    // Listing a node again replaces everything below it.
    ASSERT_TRUE(m.setChildren({dir("/h/b/z")}, "/h/b"));
    EXPECT_EQ(names(m, m.index(1, 0)), QStringList({"z"}));
    EXPECT_FALSE(m.indexForPath("/h/b/y/deep/end").isValid());

    // How often the panel asks for a listing is seen in its own tests; these are the cases it cannot reach.
    DirectoryTreeModel other;
    m.setDirectories({dir("/h/a")});
    other.setDirectories({dir("/h/a")});
    const QModelIndex a = m.index(0, 0);
    EXPECT_FALSE(m.needsListing(QModelIndex()));
    EXPECT_FALSE(m.needsListing(other.index(0, 0)));

    // A listing that never came back may be asked for again later.
    m.markListingRequested(a);
    EXPECT_FALSE(m.needsListing(a));
    EXPECT_TRUE(test::waitUntil([&] { return m.needsListing(a); }, 2000));

    // Loaded: its new children need listing; a new top level forgets everything loaded below it.
    m.setChildren({dir("/h/a/b")}, "/h/a");
    EXPECT_FALSE(m.needsListing(a));
    EXPECT_TRUE(m.needsListing(m.index(0, 0, a)));
    m.setDirectories({dir("/h/a")});
    EXPECT_TRUE(m.needsListing(m.index(0, 0)));

    // Children supplied with the top level are filtered like listings and count as loaded.
    DirectoryItem withFiles = dir("/h/a");
    withFiles.children = QList<DirectoryItem>{file("/h/a/f")};
    m.setDirectories({withFiles});
    EXPECT_EQ(m.rowCount(m.index(0, 0)), 0);
    EXPECT_FALSE(m.needsListing(m.index(0, 0)));
}
