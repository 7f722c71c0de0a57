// Writes the sticker picture (or, for the copy draw, the current picture bound
// to the same sampler).
varying vec2 textureCoordinate;
uniform sampler2D inputImageTexture;
uniform sampler2D stickerTexture;
uniform float premulAlpha;

void main()
{
    vec4 color = texture2D(stickerTexture, textureCoordinate);
    if (premulAlpha == 1.0)
        gl_FragColor = vec4(color.rgb * color.a, color.a);
    else
        gl_FragColor = color;
}
