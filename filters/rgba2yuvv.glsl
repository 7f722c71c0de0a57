// Planar YUV packing pass: vertCoordinate is the fragment's place in the
// target, 0 to 1 from the first row and column to the last.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
uniform vec2 pixel_size;
varying vec2 textureCoordinate;
varying vec2 vertCoordinate;

void main()
{
    gl_Position = mvpMatrix * a_position;
    textureCoordinate = a_texcoord;
    vertCoordinate = a_position.xy * 0.5 + 0.5;
}
