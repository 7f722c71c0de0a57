// Transition between two pictures: the quad is placed and moved by the
// caller's matrix.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
varying vec2 textureCoordinate;

void main()
{
    gl_Position = mvpMatrix * a_position;
    textureCoordinate = a_texcoord;
}
