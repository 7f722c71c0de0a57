// Renders the project's sticker drawings (SVG) into transparent PNGs at
// their own size: render_stickers OUTPUT_DIR FILE.svg...  Each FILE.svg
// becomes OUTPUT_DIR/FILE.png, named by its catalogue key.
//
// The pictures are prepared for the way the engine draws stickers: it
// exchanges red and blue when it loads one and blends it as colour already
// multiplied by alpha. So the PNGs hold red and blue exchanged and colour
// multiplied by alpha, and show on the frame as drawn.
#include <cstdio>

#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR FILE.svg...\n", argv[0]);
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    QDir().mkpath(out.path());
    for (int i = 2; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        QSvgRenderer svg(path);
        if (!svg.isValid()) {
            std::fprintf(stderr, "not a drawing: %s\n", argv[i]);
            return 1;
        }
        QImage drawn(svg.defaultSize(), QImage::Format_ARGB32_Premultiplied);
        drawn.fill(Qt::transparent);
        QPainter painter(&drawn);
        painter.setRenderHint(QPainter::Antialiasing);
        svg.render(&painter);
        painter.end();
        QImage picture(drawn.size(), QImage::Format_ARGB32);
        for (int y = 0; y < drawn.height(); ++y)
            for (int x = 0; x < drawn.width(); ++x) {
                const QRgb p = reinterpret_cast<const QRgb*>(drawn.constScanLine(y))[x];  // premultiplied
                picture.setPixel(x, y, qRgba(qBlue(p), qGreen(p), qRed(p), qAlpha(p)));
            }
        const QString target = out.filePath(QFileInfo(path).completeBaseName() + ".png");
        if (!picture.save(target, "PNG")) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(target));
            return 1;
        }
    }
    return 0;
}
