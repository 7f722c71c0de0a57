#include "shader/UniformCache.h"

#include <QByteArray>
#include <QHash>
#include <QObject>

namespace uniforms {

namespace {

class Table : public QObject {
public:
    explicit Table(QObject* program) : QObject(program) {}
    QHash<QByteArray, int> locations;
};

// The program's children are its two or three shaders and the table.
Table* tableOf(QOpenGLShaderProgram* program, bool make)
{
    for (QObject* child : program->children()) {
        if (Table* table = dynamic_cast<Table*>(child))
            return table;
    }
    return make ? new Table(program) : nullptr;
}

}  // namespace

int location(QOpenGLShaderProgram* program, const char* name)
{
    if (!program || !name)
        return -1;
    Table* table = tableOf(program, true);
    const QByteArray key = QByteArray::fromRawData(name, static_cast<int>(qstrlen(name)));
    auto found = table->locations.constFind(key);
    if (found != table->locations.constEnd())
        return found.value();
    const int at = program->uniformLocation(name);
    table->locations.insert(QByteArray(name), at);
    return at;
}

int cachedNames(QOpenGLShaderProgram* program)
{
    const Table* table = program ? tableOf(program, false) : nullptr;
    return table ? table->locations.size() : 0;
}

}  // namespace uniforms
