// The rooms of src/ include each other one way: no folder reaches, through
// its includes, back to itself, and nothing below the engine and the channel
// includes their internals (the public vocabulary header aside).
#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

using Graph = std::map<std::string, std::set<std::string>>;

// Folder of src/ to the folders its files include ("lumen_fx/..." is the public vocabulary).
Graph includeGraph()
{
    Graph graph;
    const QString root = QString(LUMEN_SOURCE_DIR) + "/src/";
    static const QRegularExpression include(R"re(^#include "(\w+)/)re", QRegularExpression::MultilineOption);
    QDirIterator it(root, {"*.h", "*.cpp"}, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const std::string folder = path.mid(root.size()).section('/', 0, 0).toStdString();
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        auto matches = include.globalMatch(QString::fromUtf8(file.readAll()));
        graph[folder];
        while (matches.hasNext()) {
            const std::string target = matches.next().captured(1).toStdString();
            if (target != folder && target != "lumen_fx")
                graph[folder].insert(target);
        }
    }
    return graph;
}

// A cycle through the graph as "a -> b -> a", or empty.
std::string findCycle(const Graph& graph)
{
    std::map<std::string, int> state;  // 1 on the path, 2 done
    std::vector<std::string> path;
    std::string found;
    std::function<bool(const std::string&)> visit = [&](const std::string& node) {
        state[node] = 1;
        path.push_back(node);
        const auto edges = graph.find(node);
        for (const std::string& next : edges == graph.end() ? std::set<std::string>() : edges->second) {
            if (state[next] == 1) {
                for (auto at = std::find(path.begin(), path.end(), next); at != path.end(); ++at)
                    found += *at + " -> ";
                found += next;
                return true;
            }
            if (state[next] == 0 && visit(next))
                return true;
        }
        path.pop_back();
        state[node] = 2;
        return false;
    };
    for (const auto& node : graph)
        if (state[node.first] == 0 && visit(node.first))
            return found;
    return "";
}

}  // namespace

TEST(Layers, FoldersIncludeEachOtherOneWay)
{
    const Graph graph = includeGraph();
    ASSERT_GE(graph.size(), 9u) << "the folders of src/ were not found";
    EXPECT_EQ(findCycle(graph), "");
    for (const auto& [folder, targets] : graph) {
        if (folder != "engine") {
            EXPECT_EQ(targets.count("engine"), 0u) << folder << " includes the engine's internals";
        }
        if (folder != "engine" && folder != "channel") {
            EXPECT_EQ(targets.count("channel"), 0u) << folder << " includes the channel's internals";
        }
    }
}

TEST(Layers, TheCycleFinderFindsACycle)
{
    EXPECT_EQ(findCycle({{"a", {"b"}}, {"b", {"c"}}, {"c", {"a"}}}), "a -> b -> c -> a");
    EXPECT_EQ(findCycle({{"a", {"b", "c"}}, {"b", {"c"}}, {"c", {}}}), "");
}
