// Planar YUV to RGBA pass: the coordinate goes out as textureOut.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
varying vec2 textureOut;

void main()
{
    gl_Position = mvpMatrix * a_position;
    textureOut = a_texcoord;
}
