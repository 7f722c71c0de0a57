// A host that knows lumen_fx only through its installed header.
#include <cstdio>
#include <cstdlib>

#include <QGuiApplication>
#include <lumen_fx/OpenglImageManager.h>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    OpenglImageManager* m = OpenglImageManager::instance();
    const int scene = m->genSceneFilters();
    const int channel = m->genChannelFilters(scene, false);
    const int unknown = m->genChannelFilters(scene + 1, false);
    std::printf("scene %d channel %d unknown %d\n", scene, channel, unknown);
    // The engine stops its scene and channel when the application goes.
    return 0;
}
