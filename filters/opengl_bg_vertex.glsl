// Background pass: a full-screen quad.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
varying vec2 textureCoordinate;

void main()
{
    gl_Position = mvpMatrix * a_position;
    textureCoordinate = a_texcoord;
}
