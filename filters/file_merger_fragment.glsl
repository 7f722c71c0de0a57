// Draws a channel picture, the background or the overlay layer.
varying vec2 textureCoordinate;
uniform sampler2D fgImageTexture;
uniform float drawGraffiti;
uniform float premulAlpha;

vec4 outputColor(vec4 color)
{
    if (premulAlpha == 1.0)
        return vec4(color.rgb * color.a, color.a);
    return color;
}

void main()
{
    // The overlay and the pictures are drawn the same way.
    if (drawGraffiti == 1.0) {
        vec4 color = texture2D(fgImageTexture, textureCoordinate);
        gl_FragColor = outputColor(color);
    } else {
        vec4 color = texture2D(fgImageTexture, textureCoordinate);
        gl_FragColor = outputColor(color);
    }
}
