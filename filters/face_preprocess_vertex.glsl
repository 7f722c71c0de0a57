// Detector input pass: a full-screen quad.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
uniform vec2 pixel_size;
varying vec2 textureCoordinate;

void main()
{
    gl_Position = mvpMatrix * a_position;
    textureCoordinate = a_texcoord;
}
